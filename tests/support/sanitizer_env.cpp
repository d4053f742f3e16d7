// Environment for sanitized programs and for programs that run on a scaled clock.
#include "tests/support/sanitizer_env.h"

#include <glob.h>

#include <cstdlib>
#include <map>
#include <stdexcept>
#include <string>

namespace tov_test {

#if defined(TOV_SANITIZE_ADDRESS) || defined(TOV_SANITIZE_THREAD) || defined(TOV_SANITIZE_UNDEFINED)
static constexpr bool sanitized = true;
#else
static constexpr bool sanitized = false;
#endif

static constexpr struct {
  const char *variable;
  const char *always;  // behind the settings of the caller, so it wins
} settings[] = {
    // The preloaded clock library comes before the sanitizer's, which is all right for it.
    {"ASAN_OPTIONS", "verify_asan_link_order=0"},
    {"UBSAN_OPTIONS", "print_stacktrace=1"},
    // A program that leaves is gone at once; by default the sanitizer waits a second for reports.
    {"TSAN_OPTIONS", "second_deadlock_stack=1:atexit_sleep_ms=0"},
};

void add_sanitizer_settings(std::map<std::string, std::string> &env) {
  if (!sanitized) return;
  for (const auto &setting : settings) {
    const char *own = getenv(setting.variable);
    env[setting.variable] = (own == nullptr ? std::string() : std::string(own) + ":") +
                            setting.always + ":log_path=" + SANITIZER_DIR + "/report";
  }
}

void add_faketime_settings(std::map<std::string, std::string> &env, const std::string &setting) {
  glob_t found{};
  const bool installed = glob("/usr/lib/*/faketime/libfaketimeMT.so.1", 0, nullptr, &found) == 0;
  const std::string library = installed ? found.gl_pathv[0] : "";
  globfree(&found);
  if (!installed) throw std::runtime_error("libfaketimeMT.so.1 is not installed");
  // Ours first: see programs/scaled_alarm.c. What the caller preloads comes before both.
  std::string &preloaded = env["LD_PRELOAD"];
  if (!preloaded.empty()) preloaded += ":";
  preloaded += TOV_BUILD_DIR "/tests/programs/libscaled_alarm.so:" + library;
  env["FAKETIME"] = setting;
}

}  // namespace tov_test
