// Readers of /proc: command line, owner of a thread, name, liveness.
#include "util/procfs.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <ostream>
#include <string>
#include <vector>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;
using tov_test::kernel_s;

static constexpr int64_t LOOK_MS = 10;
static constexpr int64_t US_PER_MS = 1000;

namespace {

class PidToCmdline : public tov_test::Simulated {
 protected:
  static std::string cmdline_of(pid_t pid, int len = 1024) {
    std::vector<char> buf(static_cast<size_t>(len), 'x');
    const char *text = pid_to_cmdline(pid, buf.data(), len);
    return text == nullptr ? "(null)" : text;
  }
};

class TovGetPpidFormPid : public tov_test::Simulated {};
class TovGetPidName : public tov_test::Simulated {
 protected:
  // The name that is read of a process called `name`, or "-1" and the buffer as it was.
  static std::string read_name(const std::string &name, int len = 64) {
    const pid_t pid = kernel().start({"/bin/x"});
    kernel().process(pid).name = name;
    char buf[64] = "before";
    return tov_get_pid_name(pid, buf, len) == 0 ? buf : std::string("-1 ") + buf;
  }
};

// Questions about life: what is answered, when, and after how many looks.
class ProcessLife : public tov_test::Simulated {
 protected:
  struct answer_s {
    int result;
    int64_t after_ms;
    int looks;
    bool operator==(const answer_s &) const = default;
  };
  static answer_s ask(pid_t pid) {
    const int looks = kernel().calls(tov_test::CALL_OPEN);
    answer_s answer{};
    answer.after_ms = span_us([&] { answer.result = process_life(pid); }) / US_PER_MS;
    answer.looks = kernel().calls(tov_test::CALL_OPEN) - looks;
    return answer;
  }
  static constexpr answer_s ALIVE_AT_ONCE{0, 0, 1};
  static constexpr answer_s DEAD_AFTER_THREE{-1, 3 * LOOK_MS, 3};

  friend std::ostream &operator<<(std::ostream &out, const answer_s &answer) {
    return out << answer.result << " after " << answer.after_ms << " ms, " << answer.looks
               << " looks";
  }
};

class TovReadStat : public tov_test::Simulated {
 protected:
  static constexpr pid_t WRITTEN = 4711;
  // "STATE SESSION THREADS STARTED STACK", or the error.
  static std::string stat_of(pid_t pid) {
    tov_stat_t stat;
    const int result = tov_read_stat(pid, &stat);
    if (result < 0) return strerrorname_np(-result);
    return std::string(1, stat.state) + " " + std::to_string(stat.session) + " " +
           std::to_string(stat.threads) + " " + std::to_string(stat.started) + " " +
           std::to_string(stat.stack);
  }
  static std::string stat_in(const std::string &text) {
    kernel().write_file("/proc/" + std::to_string(WRITTEN) + "/stat", text);
    return stat_of(WRITTEN);
  }
};

}  // namespace

// ---- command line ---------------------------------------------------------------------------

TEST_F(PidToCmdline, ArgumentsAreJoinedBehindTheExecutable) {
  const pid_t pid = kernel().start({"odd name", "-c", "read x", "-a", "b"});
  kernel().process(pid).exe = "/bin/dash";
  EXPECT_EQ(cmdline_of(pid), "/bin/dash -c read x -a b");
}

TEST_F(PidToCmdline, ArgumentZeroAloneGivesTheExecutable) {
  EXPECT_EQ(cmdline_of(kernel().start({"/bin/cat"})), "/bin/cat");
}

TEST_F(PidToCmdline, LineFeedCutsTheVisibleText) {
  EXPECT_EQ(cmdline_of(kernel().start({"/bin/sh", "-c", "one\ntwo", "three"})), "/bin/sh -c one");
}

TEST_F(PidToCmdline, OneTrailingBlankIsDropped) {
  EXPECT_EQ(cmdline_of(kernel().start({"/bin/sh", "a", ""})), "/bin/sh a ");
}

TEST_F(PidToCmdline, LongCommandLineFillsTheBuffer) {
  const std::string y(9000, 'y'), z(9000, 'z');
  const pid_t pid = kernel().start({"/bin/sh", y, z});
  const std::string whole = "/bin/sh " + y + " " + z;
  EXPECT_EQ(cmdline_of(pid, 20000), whole);
  EXPECT_EQ(cmdline_of(pid, 256), whole.substr(0, 255));
  EXPECT_EQ(cmdline_of(pid, 4096), whole.substr(0, 4095));
}

TEST_F(PidToCmdline, LongArgumentZeroIsSkipped) {
  const pid_t pid = kernel().start({std::string(10000, '0'), "end"});
  kernel().process(pid).exe = "/bin/sh";
  EXPECT_EQ(cmdline_of(pid), "/bin/sh end");
}

TEST_F(PidToCmdline, ShortAndInterruptedReadsAreResumed) {
  const pid_t pid = kernel().start({"/bin/sh", "-c", "read x"});
  kernel().transfer_limit = 1;
  for (const int nth : {1, 5, 9})
    kernel().fail(tov_test::CALL_READ, nth, EINTR);
  EXPECT_EQ(cmdline_of(pid), "/bin/sh -c read x");
}

TEST_F(PidToCmdline, SmallBufferHoldsTheExecutableAlone) {
  const pid_t pid = kernel().start({"/bin/sh", "-c"});
  EXPECT_EQ(cmdline_of(pid, 10), "/bin/sh -");
  EXPECT_EQ(cmdline_of(pid, 9), "/bin/sh");
  EXPECT_EQ(cmdline_of(pid, 8), "/bin/sh");
  EXPECT_EQ(cmdline_of(pid, 7), "/bin/s");
  EXPECT_EQ(cmdline_of(pid, 2), "/");
}

TEST_F(PidToCmdline, BlankAtTheCutIsDropped) {
  // Room for " -c " and the terminator.
  EXPECT_EQ(cmdline_of(kernel().start({"/bin/sh", "-c", "read x"}), 12), "/bin/sh -c");
}

TEST_F(PidToCmdline, WithoutAnExecutableTheBufferIsUntouched) {
  const pid_t zombie = kernel().fork();
  kernel().end(zombie);
  const pid_t kernel_thread = kernel().start({});
  char buf[64] = "before";
  for (const pid_t pid : {zombie, kernel_thread, 0, -1, INT_MAX})
    EXPECT_EQ(pid_to_cmdline(pid, buf, sizeof buf), nullptr) << pid;
  for (const int len : {1, 0, -5})
    EXPECT_EQ(pid_to_cmdline(kernel_s::SELF, buf, len), nullptr) << len;
  EXPECT_STREQ(buf, "before");
}

TEST_F(PidToCmdline, ProcessThatGoesBetweenTheFilesIsItsExecutable) {
  const pid_t pid = kernel().start({"/bin/sh", "-c"});
  kernel().before(tov_test::CALL_OPEN, 1, [=] { kernel().end(pid); });
  EXPECT_EQ(cmdline_of(pid), "/bin/sh");
}

// Its memory goes before it is a zombie.
TEST_F(PidToCmdline, WhoMustKnowIsToldOfOneThatGoesBetweenTheFiles) {
  const pid_t pid = kernel().start({"/bin/sh", "-c"});
  char text[64] = "";
  kernel().before(tov_test::CALL_OPEN, 1, [=] {
    kernel().process(pid).exe.clear();
    kernel().process(pid).words.clear();
  });
  EXPECT_EQ(tov_read_cmdline(pid, text, sizeof text), -ESRCH);
}

TEST_F(PidToCmdline, ProgramWithoutArgumentsHasNotGone) {
  const pid_t pid = kernel().start({"/bin/sh", "-c"});
  kernel().process(pid).words.clear();
  char text[64] = "";
  EXPECT_EQ(tov_read_cmdline(pid, text, sizeof text), 0);
  EXPECT_STREQ(text, "/bin/sh");
}

TEST_F(PidToCmdline, EveryCallMayFailAndLeavesNoDescriptor) {
  const pid_t pid = kernel().start({"/bin/sh", "-c"});
  const size_t open_before = kernel().descriptors();
  const int calls_before = kernel().calls();
  ASSERT_EQ(cmdline_of(pid), "/bin/sh -c");
  const int calls = kernel().calls() - calls_before;
  ASSERT_GE(calls, 4);
  for (int nth = 1; nth <= calls; nth++) {
    kernel().fail_any(nth, EIO);
    const std::string text = cmdline_of(pid);
    EXPECT_TRUE(text == "(null)" || text == "/bin/sh" || text == "/bin/sh -c") << text;
    EXPECT_EQ(kernel().descriptors(), open_before) << nth;
  }
}

// ---- status ---------------------------------------------------------------------------------

TEST_F(TovGetPpidFormPid, ThreadBelongsToItsProcess) {
  const pid_t process = kernel().start({"/bin/x"});
  EXPECT_EQ(tov_get_ppid_form_pid(kernel().start_thread(process)), process);
  EXPECT_EQ(tov_get_ppid_form_pid(process), process);
}

TEST_F(TovGetPpidFormPid, UnknownTaskHasNoOwner) {
  for (const pid_t pid : {0, -1, INT_MAX})
    EXPECT_EQ(tov_get_ppid_form_pid(pid), -1) << pid;
}

TEST_F(TovGetPpidFormPid, NameCannotForgeTheOwner) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().process(pid).name = "x\nTgid:\t1";
  EXPECT_EQ(tov_get_ppid_form_pid(pid), pid);
}

TEST_F(TovGetPpidFormPid, UnreadableFileHasNoOwner) {
  kernel().fail(tov_test::CALL_READ, 1, EIO);
  EXPECT_EQ(tov_get_ppid_form_pid(kernel_s::SELF), -1);
}

TEST_F(TovGetPidName, NameIsWhatTheKernelSays) {
  EXPECT_EQ(read_name("worker"), "worker");
  EXPECT_EQ(read_name("a b) (c %n"), "a b) (c %n");
}

TEST_F(TovGetPidName, NameIsCutToTheBuffer) {
  EXPECT_EQ(read_name("worker", 4), "wor");
  EXPECT_EQ(read_name("worker", 1), "");
}

TEST_F(TovGetPidName, LeadingBlanksAndCarriageReturnAreNoPartOfIt) {
  EXPECT_EQ(read_name(" \t worker"), "worker");
  EXPECT_EQ(read_name("wor\rker"), "wor");
}

TEST_F(TovGetPidName, EmptyNameIsAFailure) {
  EXPECT_EQ(read_name(""), "-1 before");
  EXPECT_EQ(read_name("  "), "-1 before");
}

TEST_F(TovGetPidName, BadArgumentsAreRefused) {
  char buf[8] = "before";
  EXPECT_EQ(tov_get_pid_name(kernel_s::SELF, nullptr, 8), -1);
  EXPECT_EQ(tov_get_pid_name(kernel_s::SELF, buf, 0), -1);
  EXPECT_EQ(tov_get_pid_name(INT_MAX, buf, sizeof buf), -1);
  EXPECT_EQ(tov_get_pid_name(0, buf, sizeof buf), -1);
  EXPECT_STREQ(buf, "before");
}

// ---- liveness -------------------------------------------------------------------------------

TEST_F(ProcessLife, LivingStatesAreSeenAtTheFirstLook) {
  const pid_t pid = kernel().start({"/bin/x"});
  for (const char state : {'R', 'S', 'D', 'T', 't', 'I', 'W', 'P', 'K'}) {
    kernel().process(pid).state = state;
    EXPECT_EQ(ask(pid), ALIVE_AT_ONCE) << state;
  }
}

TEST_F(ProcessLife, ZombieAndDeadAreBelievedAfterThreeLooks) {
  const pid_t pid = kernel().start({"/bin/x"});
  for (const char state : {'Z', 'X', 'x'}) {
    kernel().process(pid).state = state;
    EXPECT_EQ(ask(pid), DEAD_AFTER_THREE) << state;
  }
}

TEST_F(ProcessLife, ProcessThatIsGoneIsDeadAfterThreeLooks) {
  EXPECT_EQ(ask(4711), DEAD_AFTER_THREE);
}

TEST_F(ProcessLife, NumbersThatNameNoProcessAreDeadWithoutALook) {
  for (const pid_t pid : {0, -1, INT_MIN})
    EXPECT_EQ(ask(pid), (answer_s{-1, 3 * LOOK_MS, 0})) << pid;
}

TEST_F(ProcessLife, NameWithParenthesesDoesNotMislead) {
  const pid_t pid = kernel().start({"/bin/x"});
  for (const char *name : {"a) Z (b", ") Z", "Z)", "((", "a\nb) X 1 ("}) {
    kernel().process(pid).name = name;
    kernel().process(pid).state = 'S';
    EXPECT_EQ(ask(pid), ALIVE_AT_ONCE) << name;
    kernel().process(pid).state = 'Z';
    EXPECT_EQ(ask(pid), DEAD_AFTER_THREE) << name;
  }
}

TEST_F(ProcessLife, NewUserOfTheIdIsSeenAtTheNextLook) {
  kernel().after(15 * US_PER_MS, [] {
    kernel().set_next_pid(4711);
    kernel().start({"/bin/x"});
  });
  EXPECT_EQ(ask(4711), (answer_s{0, 2 * LOOK_MS, 3}));
}

TEST_F(ProcessLife, VanishingBetweenOpenAndReadCountsAsOneLook) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().before(tov_test::CALL_READ, 1, [=] { kernel().end(pid); });
  EXPECT_EQ(ask(pid), DEAD_AFTER_THREE);
}

TEST_F(ProcessLife, OneFailedLookIsNoDeath) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().fail(tov_test::CALL_OPEN, 1, EMFILE);
  EXPECT_EQ(ask(pid), (answer_s{0, LOOK_MS, 2}));
  kernel().fail(tov_test::CALL_READ, 1, EIO);
  EXPECT_EQ(ask(pid), (answer_s{0, LOOK_MS, 2}));
}

TEST_F(ProcessLife, TextWithoutAStateIsNoSignOfLife) {
  kernel().write_file("/proc/4711/stat", "4711 (x)");
  EXPECT_EQ(ask(4711), DEAD_AFTER_THREE);
  kernel().write_file("/proc/4711/stat", "4711 (x) ");
  EXPECT_EQ(ask(4711), DEAD_AFTER_THREE);
  kernel().write_file("/proc/4711/stat", "4711");
  EXPECT_EQ(ask(4711), DEAD_AFTER_THREE);
}

// ---- stat file --------------------------------------------------------------------------------

TEST_F(TovReadStat, FieldsThatAreAskedFor) {
  EXPECT_EQ(stat_in("4711 (x) S 1 12 4710 34 -1 4194560 1 2 3 4 5 6 7 8 20 0 3 0 123456 9 10 11 12 "
                    "13 140736\n 1 2"),
            "S 4710 3 123456 0");
  EXPECT_EQ(stat_in("4711 (x) S 1 12 4710 34 -1 4194560 1 2 3 4 5 6 7 8 20 0 3 0 123456 9 10 11 12 "
                    "13 140736 1 2\n"),
            "S 4710 3 123456 140736");
}

TEST_F(TovReadStat, NameWithParenthesesDoesNotMislead) {
  const std::string rest =
      " S 1 12 4711 34 -1 4194560 1 2 3 4 5 6 7 8 20 0 1 0 5 9 10 1 2 3 77 1\n";
  for (const char *name : {"a) Z (b", ") S 9 9 9 9", "))", "a b c", "((", "", "a\nb) X 1 ("})
    EXPECT_EQ(stat_in("4711 (" + std::string(name) + ")" + rest), "S 4711 1 5 77") << name;
}

TEST_F(TovReadStat, LongUptimesFit) {
  // A hundred years.
  EXPECT_EQ(stat_in("4711 (x) S 1 2 3 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 315360000000 1 2\n"),
            "S 3 1 315360000000 0");
  EXPECT_EQ(tov_ticks_us(315360000000), 3153600000000000);
}

TEST_F(TovReadStat, WhatCannotBeReadIsNoAnswer) {
  EXPECT_EQ(stat_of(4711), "ENOENT");
  EXPECT_EQ(stat_of(0), "ENOENT");
  EXPECT_EQ(stat_of(-1), "ENOENT");
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().fail(tov_test::CALL_OPEN, 1, EMFILE);
  EXPECT_EQ(stat_of(pid), "EMFILE");
  kernel().fail(tov_test::CALL_READ, 1, ESRCH);
  EXPECT_EQ(stat_of(pid), "ESRCH");
}

TEST_F(TovReadStat, FieldThatIsNotUnderstoodIsNotKnown) {
  const std::string begin = "4711 (x) S 1 2 3 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0";
  ASSERT_EQ(stat_in(begin + " 7 1 2\n"), "S 3 1 7 0");
  for (const char *rest : {"", " ", "\n", " x 1\n", " -7 1\n", " 7x 1\n", " 7", " 7\n", "  7 1"})
    EXPECT_TRUE(stat_in(begin + rest).ends_with(" 0 0")) << rest;
}

TEST_F(TovReadStat, TextWithoutAStateIsNoAnswer) {
  for (const char *text : {"", "4711", "4711 (x", "4711 (x)", "4711 (x) "})
    EXPECT_EQ(stat_in(text), "EIO") << text;
}
