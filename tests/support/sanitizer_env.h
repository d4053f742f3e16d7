// Environment for programs of a device that were built with a sanitizer.
#ifndef TOV_TEST_SANITIZER_ENV_H
#define TOV_TEST_SANITIZER_ENV_H

#include <map>
#include <string>

namespace tov_test {

inline constexpr char SANITIZER_DIR[] = "/run/sanitizer";  // inside the device

// Adds ASAN_OPTIONS, UBSAN_OPTIONS and TSAN_OPTIONS to `env`: the test's own settings, with the
// reports going to files of SANITIZER_DIR. On a plain build it adds nothing.
void add_sanitizer_settings(std::map<std::string, std::string> &env);

// Adds what preloads libfaketime with the given setting ("+0 x60").
// Throws std::runtime_error when the library is not installed.
void add_faketime_settings(std::map<std::string, std::string> &env, const std::string &setting);

}  // namespace tov_test

#endif  // TOV_TEST_SANITIZER_ENV_H
