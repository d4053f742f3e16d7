// What a host sees of the client library: the public calls and nothing else.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <sstream>
#include <string>

#include "tests/product/built_tree.h"

using tov_test::build_tree;
using tov_test::run;

namespace {

const std::set<std::string> PUBLIC_CALLS = {
    "reg_process_exit_action",
    "reg_process_exit_action_shell",
    "reg_third_part_process_exit_action",
    "tov_time_set",
    "tov_cancel_proc",
    "tov_client_reg_thread_notify",
    "tov_client_reg_thread_notify_no_proc",
    "tov_client_reset_thread_notify",
    "tov_client_unreg_thread_notify",
    "tov_client_watch_process_fd",
    "get_resource_limit",
    "string_exist_in_file",
    "pid_exist_in_file",
    "get_pid_notify_counter",
    "pid_reset_counter_in_file",
};

// The names of what `nm` lists, versions cut off; of one kind, or of every kind for '*'.
std::set<std::string> symbols(const std::string &nm_arguments, char kind = '*') {
  std::istringstream lines(run("nm -P " + nm_arguments));
  std::set<std::string> names;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string name;
    std::string letter;
    if (!(words >> name >> letter) || letter.size() != 1) continue;
    if (kind == '*' || letter[0] == kind) names.insert(name.substr(0, name.find('@')));
  }
  return names;
}

TEST(PublicSymbols, SharedLibraryShowsThePublicCalls) {
  std::set<std::string> shown = symbols("-D --defined-only " + build_tree() + "/libtov.so");
  EXPECT_EQ(shown.erase("TOV_1"), 1u) << "the version itself";
  EXPECT_EQ(shown, PUBLIC_CALLS);
}

TEST(PublicSymbols, StaticLibraryShowsThePublicCalls) {
  EXPECT_EQ(symbols("-g --defined-only " + build_tree() + "/libtov.a"), PUBLIC_CALLS);
}

TEST(PublicSymbols, StaticLibraryIsOneObject) {
  const std::string members = run("ar t " + build_tree() + "/libtov.a");
  EXPECT_EQ(std::count(members.begin(), members.end(), '\n'), 1);
}

TEST(PublicSymbols, SharedLibraryHasItsSoname) {
  EXPECT_NE(run("readelf -d " + build_tree() + "/libtov.so").find("soname: [libtov.so.1]"),
            std::string::npos);
}

// Names that both forms take from elsewhere.
std::set<std::string> wanted() {
  std::set<std::string> names = symbols("-u " + build_tree() + "/libtov.a");
  names.merge(symbols("-D -u " + build_tree() + "/libtov.so"));
  return names;
}

TEST(PublicSymbols, NothingOfThePlatformIsWanted) {
  for (const std::string &name : wanted()) {
    for (const char *beginning :
         {"psh_", "protect_", "printk_", "qx", "ras_logfile", "ras_remove", "fs_set_vsd"}) {
      EXPECT_FALSE(name.starts_with(beginning)) << name;
    }
  }
}

TEST(PublicSymbols, NothingOfTheCxxLibraryIsWanted) {
#if defined(TOV_SANITIZE_ADDRESS) || defined(TOV_SANITIZE_THREAD) || defined(TOV_COVERAGE)
  GTEST_SKIP() << "the instrumentation needs it";
#endif
  for (const std::string &name : wanted()) {
    EXPECT_FALSE(name.starts_with("_Z") || name.starts_with("__cxa_throw") ||
                 name.starts_with("__gxx_"))
        << name;
  }
  EXPECT_EQ(run("readelf -d " + build_tree() + "/libtov.so").find("libstdc++"), std::string::npos);
}

TEST(PublicSymbols, NothingRunsWhenTheLibraryIsLoaded) {
#if defined(TOV_SANITIZE_ADDRESS) || defined(TOV_SANITIZE_THREAD) || defined(TOV_COVERAGE)
  GTEST_SKIP() << "the instrumentation has constructors";
#endif
  // The archive's object has no table of constructors; the one of a shared library always holds
  // the compiler's own entry.
  EXPECT_EQ(run("objdump -h " + build_tree() + "/libtov.a").find(".init_array"), std::string::npos);
}

}  // namespace
