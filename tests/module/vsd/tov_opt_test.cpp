// Every form of the command line, with the shipped executable in a private root.
//
// The test holds the lock of a running daemon: where a command ends in the start of the daemon, the
// program therefore ends with status 255 and does nothing more.
#include "vsd/tov_opt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "tests/support/sanitizer_env.h"
#include "tests/support/stdout.h"
#include "util/tov_utils.h"

namespace fs = std::filesystem;

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using tov_test::read_file;
using tov_test::write_file;

static constexpr int DAEMON_STARTS = 255;  // and finds another one running
static const std::string SCRIPTS = "/etc/rc.d/rc.vsd/";
static const std::string PREFIX = "\\[TOV:tov_opt.cpp:[0-9]+\\]";
static const std::string ERROR_TEXT = "]input error!!!input tov -h for help!!!\n";

struct Outcome {
  int status;
  std::string output;
  std::string errors;
};

static std::string executable() {
  return fs::read_symlink("/proc/self/exe").parent_path() / "../../tov";
}

static Outcome run_tov(std::vector<std::string> words,
                       const std::map<std::string, std::string> &env = {}) {
  const std::string program = executable();
  const tov_fd_t output(memfd_create("output", MFD_CLOEXEC));
  const tov_fd_t errors(memfd_create("errors", MFD_CLOEXEC));
  words.insert(words.begin(), "tov");
  std::vector<char *> argv(words.size() + 1, nullptr);
  for (size_t i = 0; i < words.size(); i++)
    argv[i] = words[i].data();
  const pid_t child = fork();
  if (child == 0) {
    dup2(output.n, STDOUT_FILENO);
    dup2(errors.n, STDERR_FILENO);
    for (const auto &[name, value] : env)
      setenv(name.c_str(), value.c_str(), 1);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, tov_test::content_of(output.n),
          tov_test::content_of(errors.n)};
}

// How often the input-error line was printed; -1 when there is anything else.
static int input_errors(const std::string &output) {
  int count = 0;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line); count++)
    if (!("\n" + line + "\n").ends_with(ERROR_TEXT) || !line.starts_with("[TOV:tov_opt.cpp:"))
      return -1;
  return count;
}

class TovOpt : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    tov_test::adopt_orphans();
    setenv("DATA_QXOS_DIR", "/data/.qxos/vsd/0", 1);  // without it a complaint comes first
    fs::create_directories("/tmp/tov");
    lock = already_running("/tmp/tov/tov.pid");
    ASSERT_GE(lock, 0);
    ASSERT_TRUE(fs::exists(executable()));
  }
  void SetUp() override { fs::create_directories(SCRIPTS); }
  void TearDown() override {
    for (const std::string &path : {std::string("/tmp/vsd"), std::string("/data/var"), SCRIPTS,
                                    std::string("/data/report"), std::string("/sbin/tov_added")})
      fs::remove_all(path);
  }
  // The start scripts of a device append its number to the report.
  static void write_script() {
    write_file(SCRIPTS + "report", "#!/bin/sh\nbasename $(pwd) >> /data/report\n");
    ASSERT_EQ(chmod((SCRIPTS + "report").c_str(), 0755), 0);
  }
  static int lock;
};
int TovOpt::lock = -1;

// ---- one and two words ----------------------------------------------------------------------

TEST_F(TovOpt, WithoutWordsTheDaemonStarts) {
  const Outcome run = run_tov({});
  EXPECT_EQ(run.status, DAEMON_STARTS);
  EXPECT_EQ(run.output, "");
}

TEST_F(TovOpt, PlainWordGivesTheErrorLineAndTheDaemonStarts) {
  for (const char *word : {"word", "add", "", "-", "--"}) {
    const Outcome run = run_tov({word});
    EXPECT_EQ(run.status, DAEMON_STARTS) << word;
    EXPECT_EQ(input_errors(run.output), 1) << run.output;
  }
}

TEST_F(TovOpt, Help) {
  const std::vector<std::string> lines = {
      "\n----------------------------------------\n",
      "Usage: \n",
      "Options are as follows:\n",
      " tov -c count             Create count vsd\n",
      " tov -d vsd_no            Delete vsd_no vsd\n",
      " tov -s                   Show all vsd\n",
      " tov -h                   Display help\n",
      " tov -v                   Display version\n",
      " tov add proc vsd_no      Add proc to vsd\n",
      "-------------------------------------------\n",
  };
  std::string expected;
  for (const std::string &line : lines)
    expected += PREFIX + line;
  for (const char *word : {"-h", "--help", "--he"}) {
    const Outcome run = run_tov({word});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, MatchesRegex(expected));
  }
}

TEST_F(TovOpt, Version) {
  for (const char *word : {"-v", "--version"}) {
    const Outcome run = run_tov({word});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output, MatchesRegex(PREFIX + "This is TOV verison 1.0\n[^\n]+\n"));
  }
}

TEST_F(TovOpt, Show) {
  fs::create_directories("/tmp/vsd/3/tov/db");
  for (const char *word : {"-s", "--show", "-sv"}) {
    const Outcome run = run_tov({word});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "Vsd_3: /tmp/vsd/3/tov/\ndb\n");
  }
}

TEST_F(TovOpt, OptionsAloneThatCannotBeAreMalformed) {
  for (const char *word :
       {"-c", "-d", "--create", "--delete", "-x", "--nothing", "--show=1", "-cs"}) {
    const Outcome run = run_tov({word});
    EXPECT_EQ(run.status, 1) << word;
    EXPECT_EQ(input_errors(run.output), 1) << run.output;
  }
  EXPECT_THAT(run_tov({"-x"}).errors, HasSubstr("invalid option -- 'x'"));
}

// ---- three words ----------------------------------------------------------------------------

TEST_F(TovOpt, CreatesTheDevicesInOrder) {
  write_script();
  for (const char *word : {"-c", "--create"}) {
    const Outcome run = run_tov({word, "3"});
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, "");
    EXPECT_EQ(read_file("/data/report"), "1\n2\n3\n");
    fs::remove("/data/report");
  }
  for (const char *path : {"/tmp/vsd/1/tov/db", "/tmp/vsd/2/tov/db", "/tmp/vsd/3/tov/db"})
    EXPECT_TRUE(fs::is_directory(path));
  EXPECT_FALSE(fs::exists("/tmp/vsd/4"));
}

TEST_F(TovOpt, FailedCreationIsToldAndItsChildGoesOnWithTheNext) {
  write_script();
  fs::create_directories("/data/var/run/vsd");
  write_file("/data/var/run/vsd/2", "in the way");
  const Outcome run = run_tov({"-c", "3"});
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, MatchesRegex(PREFIX + "create vsd fail, error = Not a directory.\n"));
  EXPECT_EQ(read_file("/data/report"), "1\n3\n3\n");
}

TEST_F(TovOpt, FailedDeletionIsToldAndNoFailure) {
  for (const char *word : {"-d", "--delete"}) {
    const Outcome run = run_tov({word, "9"});
    EXPECT_EQ(run.status, 0);
    EXPECT_THAT(run.output,
                MatchesRegex(PREFIX + "delete 9 vsd fail, error =No such file or directory.\n"));
  }
}

TEST_F(TovOpt, Deletes) {
  fs::create_directories("/tmp/vsd/400020/tov/db");  // no process is in a group of that number
  std::map<std::string, std::string> env;
  env["ASAN_OPTIONS"] = "verify_asan_link_order=0";  // the clock's library comes first
  tov_test::add_faketime_settings(env, "+0 x50");
  const Outcome run = run_tov({"-d", "400020"}, env);
  EXPECT_EQ(run.status, 0);
  EXPECT_THAT(run.output, AllOf(StartsWith("Sending vsd: 400020 all processes the TERM signal..."),
                                EndsWith("After 10s, Delete vsd: 400020 OK.\n")));
  EXPECT_FALSE(fs::exists("/tmp/vsd/400020"));
}

TEST_F(TovOpt, NumbersThatAreNoneGiveTwoErrorLinesAndTheDaemonStarts) {
  const std::vector<std::vector<std::string>> cases = {
      {"-c", "0"}, {"-c", "word"}, {"-d", "0"}, {"-d", "word"}, {"-d", ""}, {"--", "-c"},
  };
  for (const auto &words : cases) {
    const Outcome run = run_tov(words);
    EXPECT_EQ(run.status, DAEMON_STARTS) << words[0] << " " << words[1];
    EXPECT_EQ(input_errors(run.output), words[0] == "--" ? 1 : 2) << run.output;
  }
}

TEST_F(TovOpt, NumberIsTheSecondWordWhereverTheOptionStands) {
  // The option is found behind the number; the second word is the option itself.
  const Outcome run = run_tov({"3", "-c"});
  EXPECT_EQ(run.status, DAEMON_STARTS);
  EXPECT_EQ(input_errors(run.output), 2);
  EXPECT_FALSE(fs::exists("/tmp/vsd"));
}

TEST_F(TovOpt, NegativeNumberIsReadAsAnOption) {
  for (const char *option : {"-c", "-d"}) {
    const Outcome run = run_tov({option, "-3"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(input_errors(run.output), 2);
  }
}

TEST_F(TovOpt, OtherTwoWordsAreMalformed) {
  const std::vector<std::vector<std::string>> cases = {
      {"-s", "word"}, {"-v", "1"}, {"-h", "-s"}, {"-x", "1"}, {"word", "-s"}, {"--version", "x"}};
  for (const auto &words : cases) {
    const Outcome run = run_tov(words);
    EXPECT_EQ(run.status, 1) << words[0];
    EXPECT_EQ(input_errors(run.output), 1) << run.output;
  }
}

TEST_F(TovOpt, TwoPlainWordsGiveTheErrorLineAndTheDaemonStarts) {
  const Outcome run = run_tov({"add", "program"});
  EXPECT_EQ(run.status, DAEMON_STARTS);
  EXPECT_EQ(input_errors(run.output), 1);
}

// ---- four words and more --------------------------------------------------------------------

TEST_F(TovOpt, AddToADeviceThatIsNotThere) {
  const Outcome run = run_tov({"add", "program", "9"});
  EXPECT_EQ(run.status, DAEMON_STARTS);
  EXPECT_EQ(run.output, "vsd 9 is not exist\n");
  EXPECT_EQ(run_tov({"add", "program", "-1"}).output, "vsd -1 is not exist\n");
}

TEST_F(TovOpt, AddStartsTheProgramAndGoesOn) {
  fs::create_directories("/tmp/vsd/4/tov");
  write_file("/sbin/tov_added",
             "#!/bin/sh\nbasename $(pwd) > /data/report.new\n"
             "mv /data/report.new /data/report\n");
  ASSERT_EQ(chmod("/sbin/tov_added", 0755), 0);
  const Outcome run = run_tov({"add", "tov_added", "4"});
  EXPECT_EQ(run.status, DAEMON_STARTS);
  EXPECT_EQ(run.output, "");
  EXPECT_TRUE(tov_test::wait_until([] { return read_file("/data/report") == "4\n"; },
                                   tov_test::Millis(30'000)));
  // The tool has not waited for its child, which records the program after it was started.
  EXPECT_TRUE(tov_test::wait_until([] { return !fs::is_empty("/tmp/vsd/4/tov"); },
                                   tov_test::Millis(30'000)));
  EXPECT_THAT(tov_test::names_in("/tmp/vsd/4/tov"), testing::SizeIs(1));
}

TEST_F(TovOpt, AddToADeviceBeyondTheRange) {
  fs::create_directories("/tmp/vsd/17/tov");
  const Outcome run = run_tov({"add", "tov_added", "17"});
  EXPECT_EQ(run.status, DAEMON_STARTS);
  EXPECT_THAT(run.output, MatchesRegex(PREFIX + "add proc = tov_added to vsd = 17\n fail.\n"));
}

TEST_F(TovOpt, AddWithAWordForANumberMeansTheBaseSystem) {
  fs::create_directories("/tmp/vsd/0/tov");
  const Outcome run = run_tov({"add", "tov_added", "word"});
  EXPECT_EQ(run.status, DAEMON_STARTS);
  EXPECT_EQ(run.output, "");
}

TEST_F(TovOpt, OtherThreeWordsAreMalformed) {
  const std::vector<std::vector<std::string>> cases = {
      {"ADD", "program", "1"}, {"-c", "1", "2"}, {"-s", "-s", "-s"}, {"-h", "add", "1"}};
  for (const auto &words : cases) {
    const Outcome run = run_tov(words);
    EXPECT_EQ(run.status, 1) << words[0];
    EXPECT_EQ(input_errors(run.output), 1) << run.output;
  }
}

TEST_F(TovOpt, MoreWordsEndWithoutFailure) {
  const std::vector<std::vector<std::string>> cases = {
      {"add", "program", "1", "2"}, {"-h", "-h", "-h", "-h"}, {"a", "b", "c", "d", "e", "f"}};
  for (const auto &words : cases) {
    const Outcome run = run_tov(words);
    EXPECT_EQ(run.status, 0) << words[0];
    EXPECT_EQ(input_errors(run.output), 1) << run.output;
  }
}

// ---- the texts by themselves ----------------------------------------------------------------

TEST_F(TovOpt, TextsArePrintedWhileDiagnosticsAreOff) {
  EXPECT_THAT(tov_test::printed_by(tov_help), HasSubstr("]Usage: \n"));
  EXPECT_THAT(tov_test::printed_by(tov_version), HasSubstr("]This is TOV verison 1.0\n"));
}
