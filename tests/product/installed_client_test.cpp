// The client library as other teams get it: installed, found, compiled against and run.
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "tests/product/built_tree.h"
#include "tests/support/files.h"

using tov_test::run;
using tov_test::source_tree;

namespace {

// What the instrumentation of this build needs from whoever links with it.
#if defined(TOV_SANITIZE_ADDRESS)
const std::string INSTRUMENTED = " -fsanitize=address,undefined";
#elif defined(TOV_SANITIZE_THREAD)
const std::string INSTRUMENTED = " -fsanitize=thread";
#elif defined(TOV_COVERAGE)
const std::string INSTRUMENTED = " --coverage";
#else
const std::string INSTRUMENTED;
#endif

const std::string STRICT =
    " -std=c11 -D_GNU_SOURCE -Wall -Wextra -Wpedantic -pedantic-errors -Werror";

class InstalledClient : public tov_test::InstalledTree {
 protected:
  static std::string lib() { return prefix() + "/lib"; }
  static std::string pkg_config(const std::string &arguments) {
    std::string flags =
        run("PKG_CONFIG_PATH=" + lib() + "/pkgconfig pkg-config " + arguments + " tov");
    while (!flags.empty() && (flags.back() == '\n' || flags.back() == ' '))
      flags.pop_back();
    return flags;
  }
  static std::string host_source() { return source_tree() + "/tests/client/host.c"; }
  static void run_host(const std::string &program) {
    run("LD_LIBRARY_PATH=" + lib() + " " + program);
  }
};

TEST_F(InstalledClient, TreeHoldsWhatHostsNeed) {
  using Names = std::set<std::string>;
  EXPECT_EQ(tov_test::names_in(prefix() + "/include/tov"),
            (Names{"tov.h", "tov_wire.h", "tov_xtach.h"}));
  const Names libraries = tov_test::names_in(lib());
  for (const char *name : {"libtov.so", "libtov.so.1", "libtov.a", "pkgconfig", "cmake"}) {
    EXPECT_TRUE(libraries.contains(name)) << name;
  }
  EXPECT_TRUE(std::filesystem::exists(prefix() + "/share/doc/tov/clients.md"));
  EXPECT_EQ(tov_test::names_in(prefix() + "/share/doc/tov/examples").size(), 3u);
}

TEST_F(InstalledClient, C11HostLinksTheSharedLibraryByPkgConfig) {
  const std::string host = *tree_ / "host_shared";
  run("cc" + STRICT + INSTRUMENTED + " " + host_source() + " -o " + host + " " +
      pkg_config("--cflags --libs"));
  run_host(host);
  EXPECT_NE(run("readelf -d " + host).find("[libtov.so.1]"), std::string::npos);
}

TEST_F(InstalledClient, C11HostLinksTheArchiveWithoutACxxRuntime) {
  const std::string host = *tree_ / "host_static";
  std::string libraries = pkg_config("--static --libs");
  libraries.replace(libraries.find("-ltov"), 5, "-l:libtov.a");
  run("cc" + STRICT + INSTRUMENTED + " " + host_source() + " -o " + host + " " +
      pkg_config("--cflags") + " " + libraries);
  run(host);
  EXPECT_EQ(run("readelf -d " + host).find("[libtov.so.1]"), std::string::npos);
}

TEST_F(InstalledClient, CMakeProjectFindsBothForms) {
  const std::string build = *tree_ / "cmake";
  const std::string flags = INSTRUMENTED.empty() ? "" : " '-DCMAKE_C_FLAGS=" + INSTRUMENTED + "'";
  run("cmake -S " + source_tree() + "/tests/client -B " + build +
      " -DCMAKE_PREFIX_PATH=" + prefix() + flags);
  run("cmake --build " + build);
  run_host(build + "/host_tov");
  run(build + "/host_tov_static");
}

TEST_F(InstalledClient, TreeMayBeMoved) {
  const std::string elsewhere = *tree_ / "moved";
  std::filesystem::copy(
      prefix(), elsewhere,
      std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks);
  const std::string flags =
      run("PKG_CONFIG_PATH=" + elsewhere + "/lib/pkgconfig pkg-config --variable=includedir tov");
  EXPECT_EQ(std::filesystem::weakly_canonical(flags.substr(0, flags.find('\n'))),
            std::filesystem::canonical(elsewhere + "/include"));
}

TEST_F(InstalledClient, ExamplesCompileAsTheySay) {
  const std::string warnings = " -Wall -Wextra -Werror" + INSTRUMENTED + " ";
  const std::string rest = " " + pkg_config("--cflags --libs") + " -o " + *tree_ / "example";
  const auto compile = [&](const std::string &compiler, const std::string &name) {
    run(compiler + warnings + prefix() + "/share/doc/tov/examples/" + name + rest);
  };
  compile("cc -D_GNU_SOURCE", "supervised_c.c");
  compile("c++", "supervised_cpp.cpp");
  compile("c++", "watched_worker.cpp");
}

}  // namespace
