// Whether whoever has an id lives: a certain answer, and one that may cost pauses.
#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <sys/types.h>

#include <ostream>
#include <string>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"
#include "util/identity.h"

using tov_test::kernel;

static constexpr int64_t LOOK_MS = 10;
static constexpr int64_t US_PER_MS = 1000;

namespace {

// Questions about life: what is answered, when, and after how many looks.
class Asked : public tov_test::Simulated {
 protected:
  struct answer_s {
    int result;
    int64_t after_ms;
    int looks;
    bool operator==(const answer_s &) const = default;
  };
  template <typename Question>
  static answer_s answer_of(Question question, pid_t pid) {
    const int looks = kernel().calls(tov_test::CALL_OPEN);
    answer_s answer{};
    answer.after_ms = span_us([&] { answer.result = question(pid); }) / US_PER_MS;
    answer.looks = kernel().calls(tov_test::CALL_OPEN) - looks;
    return answer;
  }

  friend std::ostream &operator<<(std::ostream &out, const answer_s &answer) {
    return out << answer.result << " after " << answer.after_ms << " ms, " << answer.looks
               << " looks";
  }
};

class TovProcessState : public Asked {
 protected:
  static answer_s ask(pid_t pid) { return answer_of(tov_process_state, pid); }
  static constexpr answer_s LIVES{TOV_PROCESS_LIVES, 0, 1};
  static constexpr answer_s DEAD{TOV_PROCESS_DEAD, 0, 1};
  static constexpr answer_s DEAD_TWICE{TOV_PROCESS_DEAD, 0, 2};
  static constexpr answer_s UNCERTAIN{TOV_PROCESS_UNCERTAIN, 0, 1};

  static constexpr pid_t WRITTEN = 4711;  // a process of which there is only this text
  static answer_s ask_about(const std::string &text) {
    kernel().write_file("/proc/" + std::to_string(WRITTEN) + "/stat", text);
    return ask(WRITTEN);
  }
};

class TovProcessLives : public Asked {
 protected:
  static answer_s ask(pid_t pid) { return answer_of(tov_process_lives, pid); }
  static constexpr answer_s LIVES{true, 0, 1};
};

}  // namespace

// ---- a certain answer ----------------------------------------------------

TEST_F(TovProcessState, LivingStatesAreSeenAtOnce) {
  const pid_t pid = kernel().start({"/bin/x"});
  for (const char state : {'R', 'S', 'D', 'T', 't', 'I', 'W', 'P', 'K'}) {
    kernel().process(pid).state = state;
    EXPECT_EQ(ask(pid), LIVES) << state;
  }
  EXPECT_EQ(ask(kernel().start_thread(pid)), LIVES) << "a thread";
}

TEST_F(TovProcessState, ZombieWithoutAnotherThreadIsDeadAtOnce) {
  const pid_t pid = kernel().start({"/bin/x"});
  for (const char state : {'Z', 'X', 'x'}) {
    kernel().process(pid).state = state;
    for (const char *name : {"x", "a) S 1 (b", ") S"}) {
      kernel().process(pid).name = name;
      EXPECT_EQ(ask(pid), DEAD) << state << name;
    }
  }
}

TEST_F(TovProcessState, ZombieWhoseThreadsRunIsUncertain) {
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t thread = kernel().start_thread(pid);
  for (const char state : {'Z', 'X', 'x'}) {
    kernel().process(pid).state = state;
    EXPECT_EQ(ask(pid), UNCERTAIN) << state;
    EXPECT_EQ(ask(thread), LIVES);
  }
  kernel().reap(thread);
  EXPECT_EQ(ask(pid), DEAD);
}

TEST_F(TovProcessState, MissingEntryIsLookedForTwice) {
  EXPECT_EQ(ask(4711), DEAD_TWICE);
}

TEST_F(TovProcessState, VanishingBetweenOpenAndReadIsADeath) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().before(tov_test::CALL_READ, 1, [=] { kernel().end(pid); });
  EXPECT_EQ(ask(pid), DEAD_TWICE);
}

// The first thread's entry goes when another one executes a program, and the id goes on.
TEST_F(TovProcessState, EntryThatIsBackAtTheSecondLookLives) {
  kernel().before(tov_test::CALL_OPEN, 2, [] {
    kernel().set_next_pid(4711);
    kernel().start({"/bin/x"});
  });
  EXPECT_EQ(ask(4711), (answer_s{TOV_PROCESS_LIVES, 0, 2}));
  kernel().fail(tov_test::CALL_READ, 1, ESRCH);
  EXPECT_EQ(ask(4711), (answer_s{TOV_PROCESS_LIVES, 0, 2}));
}

TEST_F(TovProcessState, ReleasedZombieIsLookedForTwice) {
  const std::string released = "4711 (x) Z 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 0 0 1 0\n";
  EXPECT_EQ(ask_about(released), DEAD_TWICE);
  kernel().before(tov_test::CALL_OPEN, 2, [] {
    kernel().set_next_pid(WRITTEN);
    kernel().start({"/bin/x"});
  });
  EXPECT_EQ(ask(WRITTEN), (answer_s{TOV_PROCESS_LIVES, 0, 2}));
}

TEST_F(TovProcessState, NumbersThatNameNoProcessAreDeadWithoutALook) {
  for (const pid_t pid : {0, -1, INT_MIN})
    EXPECT_EQ(ask(pid), (answer_s{TOV_PROCESS_DEAD, 0, 0})) << pid;
}

TEST_F(TovProcessState, NoFailureOfACallIsADeath) {
  const pid_t living = kernel().start({"/bin/x"});
  const pid_t zombie = kernel().start({"/bin/x"});
  kernel().process(zombie).state = 'Z';
  for (const pid_t pid : {living, zombie, pid_t{4711}}) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, EACCES, EPERM, EIO, ELOOP, ENOTDIR}) {
      kernel().fail(tov_test::CALL_OPEN, 1, error);
      EXPECT_EQ(ask(pid), UNCERTAIN) << error;
      if (pid == 4711) continue;
      kernel().fail(tov_test::CALL_READ, 1, error);
      EXPECT_EQ(ask(pid), UNCERTAIN) << error;
    }
  }
  kernel().fail(tov_test::CALL_OPEN, 2, EMFILE);
  EXPECT_EQ(ask(4711), (answer_s{TOV_PROCESS_UNCERTAIN, 0, 2}));
}

TEST_F(TovProcessState, InterruptedAndShortReadsAreResumed) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().process(pid).state = 'Z';
  kernel().transfer_limit = 1;
  kernel().fail(tov_test::CALL_READ, 5, EINTR);
  EXPECT_EQ(ask(pid), DEAD);
}

TEST_F(TovProcessState, TextThatIsNotUnderstoodIsUncertain) {
  const std::string begin = "4711 (x) Z 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0";
  ASSERT_EQ(ask_about(begin + " 1 0 1 0\n"), DEAD);
  for (const char *rest : {"", " ", " 1", " x 0 1 0\n", " 1x 0 1 0\n", " -1 0 1 0\n", "  0 1 0\n",
                           " 99999999999999999999 0 1 0\n"})
    EXPECT_EQ(ask_about(begin + rest), UNCERTAIN) << rest;
  for (const char *text :
       {"", "4711", "4711 (x", "4711 (x)", "4711 (x) ", "4711 (x)Z", "4711 (x) Z"})
    EXPECT_EQ(ask_about(text), UNCERTAIN) << text;
}

// ---- at once where it is certain -----------------------------------------

TEST_F(TovProcessLives, CertainAnswersCostNoTime) {
  const pid_t pid = kernel().start({"/bin/x"});
  EXPECT_EQ(ask(pid), LIVES);
  kernel().process(pid).state = 'Z';
  EXPECT_EQ(ask(pid), (answer_s{false, 0, 1}));
  EXPECT_EQ(ask(4711), (answer_s{false, 0, 2}));
  EXPECT_EQ(ask(-1), (answer_s{false, 0, 0}));
}

TEST_F(TovProcessLives, UncertainDeathIsAskedForThreeTimes) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().start_thread(pid);
  kernel().process(pid).state = 'Z';
  EXPECT_EQ(ask(pid), (answer_s{false, 3 * LOOK_MS, 4}));
}

TEST_F(TovProcessLives, LookThatFailedIsNoDeath) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().fail(tov_test::CALL_OPEN, 1, EMFILE);
  EXPECT_EQ(ask(pid), (answer_s{true, 0, 2}));
  kernel().fail(tov_test::CALL_OPEN, 1, EMFILE);
  kernel().fail(tov_test::CALL_OPEN, 2, EMFILE);
  kernel().fail(tov_test::CALL_OPEN, 3, EMFILE);
  EXPECT_EQ(ask(pid), (answer_s{true, 2 * LOOK_MS, 4}));
}
