// The build tree that a test program belongs to, commands run on it, and what it installs.
#ifndef TOV_TEST_BUILT_TREE_H
#define TOV_TEST_BUILT_TREE_H

#include <gtest/gtest.h>
#include <stdio.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include "tests/support/files.h"

namespace tov_test {

// Test programs lie in tests/product of the build tree.
inline std::string build_tree() {
  return std::filesystem::canonical("/proc/self/exe").parent_path().parent_path().parent_path();
}

// The build knows it: __FILE__ is a relative path under some compiler caches.
inline std::string source_tree() {
  return TOV_SOURCE_TREE;
}

// What a shell command prints, error output included. Throws when it does not return 0.
inline std::string run(const std::string &command) {
  FILE *pipe = popen((command + " 2>&1").c_str(), "re");
  if (pipe == nullptr) throw std::runtime_error("popen");
  std::string output;
  char piece[4096];
  for (size_t n = 0; (n = fread(piece, 1, sizeof piece, pipe)) > 0;)
    output.append(piece, n);
  const int status = pclose(pipe);
  if (status != 0)
    throw std::runtime_error(command + "\nreturned " + std::to_string(status) + "\n" + output);
  return output;
}

// The client's files, installed once for a whole suite, as another team gets them.
class InstalledTree : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    tree_ = std::make_unique<ScratchDir>();
    run("cmake --install " + build_tree() + " --prefix " + prefix() + " --component client");
  }
  static void TearDownTestSuite() { tree_.reset(); }

  static std::string prefix() { return *tree_ / "usr"; }

  static inline std::unique_ptr<ScratchDir> tree_;
};

}  // namespace tov_test

#endif  // TOV_TEST_BUILT_TREE_H
