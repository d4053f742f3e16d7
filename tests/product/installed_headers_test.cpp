// What the installed headers bring into a program that includes them: message types, layouts,
// action values and the public calls, and nothing of the daemon behind them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/product/built_tree.h"
#include "tests/support/files.h"

using testing::IsEmpty;
using tov_test::run;
using tov_test::source_tree;

namespace {

using Names = std::set<std::string>;

const std::vector<std::string> HEADERS = {"tov.h", "tov_wire.h", "tov_xtach.h"};

const std::string WARNINGS = " -pedantic -pedantic-errors -Wall -Wextra -Wundef -Werror";
const std::string C11 = "cc -x c -std=c11" + WARNINGS;
const std::vector<std::string> DIALECTS = {
    C11,
    "cc -x c -std=gnu17" + WARNINGS,
    "c++ -x c++ -std=c++11" + WARNINGS,
    "c++ -x c++ -std=c++17" + WARNINGS,
    "c++ -x c++ -std=c++20" + WARNINGS,
};

// What tov_wire.h is for.
const Names WIRE = {
    "NORMAL_EXIT",     "RESPAWN",           "SHELL_RESTART",     "IGNORE_EXIT",
    "TOV_MSG_TYPE",    "TOV_RESET",         "TOV_RESTART",       "TOV_SHELL_RESTART",
    "TOV_NORMAL_EXIT", "TOV_MSG_ACK",       "TOV_MSG_CONS",      "tov_msg_type_e",
    "tov_msg_head_s",  "tov_msg_cons_s",    "TOV_CONS_DUMP_ALL", "TOV_UNREG_THREAD_NOTIFY",
    "tov_msg_head_t",  "tov_msg_cons_t",    "tov_msg_xtach_s",   "tov_msg_xtach_t",
    "TOV_GRP_SIZE",    "TOV_PATHNAME_SIZE",
};

// Every public call, with arguments that compile.
const std::vector<std::string> CALLS = {
    "reg_process_exit_action(0, TOV_RESTART)",
    "reg_process_exit_action_shell(0, TOV_SHELL_RESTART, \"\")",
    "reg_third_part_process_exit_action(0, \"\")",
    "tov_time_set(0, TOV_RESTART, 1)",
    "tov_cancel_proc(0)",
    "tov_client_reg_thread_notify(1, 1, 1, 1)",
    "tov_client_reg_thread_notify_no_proc(1, 1, 1, 1)",
    "tov_client_reset_thread_notify(1, 1, 1, 1)",
    "tov_client_unreg_thread_notify(1)",
    "tov_client_watch_process_fd(0)",
    "get_resource_limit(0)",
    "string_exist_in_file(\"\", \"\")",
    "pid_exist_in_file(0, \"\")",
    "get_pid_notify_counter(\"\", \"\")",
    "pid_reset_counter_in_file(0, \"\")",
};

class InstalledHeaders : public tov_test::InstalledTree {
 protected:
  // What a compiler says about a program that may include <tov/...>. Throws when it refuses it.
  static std::string compile(const std::string &compiler, const std::string &text) {
    const std::string source = *tree_ / "host.c";
    tov_test::write_file(source, text);
    return run(compiler + " -I" + prefix() + "/include " + source);
  }
  static std::string include(const std::string &header) {
    return "#include <tov/" + header + ">\n";
  }
};

// The lines of a preprocessed program that stand in our headers themselves.
std::string own_lines(const std::string &preprocessed) {
  static const std::regex MARKER("# [0-9]+ \"([^\"]*)\".*");
  std::istringstream lines(preprocessed);
  std::string own;
  bool ours = false;
  for (std::string line; std::getline(lines, line);) {
    std::smatch file;
    if (std::regex_match(line, file, MARKER))
      ours = file[1].str().find("/include/tov/") != std::string::npos;
    else if (ours)
      own += line + "\n";
  }
  return own;
}

// The names in a text that could be ours: exit actions and whatever begins with "tov_", and the
// names that precede an opening bracket, which are functions.
Names our_names(const std::string &text) {
  static const std::regex OURS("\\b((tov|TOV)_\\w+|\\w*(RESPAWN|RESTART|_EXIT)|\\w+(?=\\())");
  Names names;
  for (std::sregex_iterator it(text.begin(), text.end(), OURS), end; it != end; ++it)
    names.insert(it->str());
  for (const char *of_the_language : {"_Static_assert", "sizeof", "__attribute__", "visibility",
                                      "offsetof", "__builtin_offsetof"})
    names.erase(of_the_language);
  return names;
}

Names macros(const std::string &dump) {
  Names names;
  std::istringstream lines(dump);
  std::string define;
  std::string name;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    words >> define >> name;
    names.insert(name.substr(0, name.find('(')));
  }
  return names;
}

TEST_F(InstalledHeaders, EachStandsAloneInEveryDialect) {
  for (const std::string &header : HEADERS) {
    for (const std::string &dialect : DIALECTS)
      compile(dialect + " -fsyntax-only", include(header) + "extern int nothing;\n");
  }
}

TEST_F(InstalledHeaders, DeclareTheWireAndTheCallsOnly) {
  const auto declared = [](const std::string &header) {
    return our_names(own_lines(compile("cc -x c -std=c11 -E", include(header))));
  };
  EXPECT_EQ(declared("tov.h"), WIRE);
  EXPECT_EQ(declared("tov_wire.h"), WIRE);
  Names wire_and_calls = WIRE;
  for (const std::string &call : CALLS)
    wire_and_calls.insert(call.substr(0, call.find('(')));
  EXPECT_EQ(declared("tov_xtach.h"), wire_and_calls);
}

TEST_F(InstalledHeaders, LeaveNoMacroBehindButGuardsAndTheRelease) {
  const std::string system = "#include <stddef.h>\n#include <stdint.h>\n#include <sys/types.h>\n";
  for (const std::string compiler : {"cc -x c -std=c11", "c++ -x c++ -std=c++17"}) {
    const Names before = macros(compile(compiler + " -E -dM", system));
    Names added = macros(compile(compiler + " -E -dM", include("tov.h") + include("tov_xtach.h")));
    for (const std::string &name : before)
      added.erase(name);
    EXPECT_EQ(added, (Names{"TOV_H", "TOV_WIRE_H", "TOV_XTACH_H", "TOV_VERSION_MAJOR",
                            "TOV_VERSION_MINOR", "TOV_VERSION_PATCH"}))
        << compiler;
  }
}

// A program whose own names are those that the daemon and its helpers use.
TEST_F(InstalledHeaders, LeaveTheDaemonsNamesToTheHost) {
  const std::string own =
      "struct tov_pid_s { int mine; };\n"
      "typedef struct tov_pid_s *tov_pid_t;\n"
      "typedef double tov_chains_t;\n"
      "typedef double tov_cnmsg_data_t;\n"
      "typedef double TOV_LOG_TYPE;\n"
      "enum { TOV_DBG_END = 77, TOV_MODULE_PUB, TOV_LOG_KILL, TOV_EVENT_EXIT, TOV_PROCESS_SIZE,\n"
      "       TOV_FLAG_STARTED, TOV_LIST_POISON_NEXT, TOV_PROVE, TOV_API, TOV_NOTHROW };\n"
      "enum { pthread_create, pthread_mutex_lock };\n"
      "#ifdef _PTHREAD_H\n#error pthread.h was included\n#endif\n"
      "#ifdef _TIME_H\n#error time.h was included\n#endif\n"
      "#if defined bool || defined true || defined false\n#error stdbool.h was included\n#endif\n"
      "#ifndef __cplusplus\ntypedef char bool;\nenum { false = 5, true = 6 };\n#endif\n";
  for (const std::string &dialect : DIALECTS) {
    compile(dialect + " -fsyntax-only", include("tov.h") + include("tov_xtach.h") + own);
    compile(dialect + " -fsyntax-only", own + include("tov_xtach.h") + include("tov.h"));
  }
}

TEST_F(InstalledHeaders, CallsNeverThrowInTheEyesOfCxx) {
  std::string proof = include("tov_xtach.h");
  for (const std::string &call : CALLS)
    proof += "static_assert(noexcept(" + call + "), \"\");\n";
  for (const std::string &dialect : DIALECTS) {
    if (dialect.starts_with("c++")) compile(dialect + " -fsyntax-only", proof);
  }
}

TEST_F(InstalledHeaders, TellTheReleaseOfThePackage) {
  std::string release =
      run("PKG_CONFIG_PATH=" + prefix() + "/lib/pkgconfig pkg-config --modversion tov");
  std::replace(release.begin(), release.end(), '.', ' ');
  for (const std::string &header : HEADERS) {
    const std::string told =
        compile("cc -x c -std=c11 -E -P",
                include(header) + "told TOV_VERSION_MAJOR TOV_VERSION_MINOR TOV_VERSION_PATCH\n");
    EXPECT_NE(told.find("told " + release), std::string::npos) << header << ": " << told;
  }
}

// What they need is what every C library has; nothing depends on files that a host may have.
TEST_F(InstalledHeaders, LookForNoFileOfTheHost) {
  for (const std::string &header : HEADERS) {
    EXPECT_EQ(tov_test::read_file(prefix() + "/include/tov/" + header).find("__has_include"),
              std::string::npos)
        << header;
  }
}

// The tree's own header of the name holds both halves, for C as well.
TEST(TreeHeaders, AreStrictCToo) {
  const tov_test::ScratchDir scratch;
  for (const std::string header :
       {"tov.h", "tov_registry.h", "tov_wire.h", "tov_xtach.h", "tov_ras_comp_config.h"}) {
    const std::string source = scratch / "host.c";
    tov_test::write_file(source, "#include \"include/" + header + "\"\nextern int nothing;\n");
    EXPECT_THAT(run(C11 + " -D_GNU_SOURCE -fsyntax-only -I" + source_tree() + " " + source),
                IsEmpty());
  }
}

}  // namespace
