// Whether whoever has an id lives, as the text of one small file tells it: at once, and never dead
// because a call failed.
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

namespace {

// The question about life: what is answered, when, and after how many looks.
class TovIdentityLife : public tov_test::Simulated {
 protected:
  struct answer_s {
    tov_life_e life;
    int64_t after_us;
    int looks;
    bool operator==(const answer_s &) const = default;
  };
  static answer_s ask(pid_t pid) {
    const int looks = kernel().calls(tov_test::CALL_OPEN);
    answer_s answer{};
    answer.after_us = span_us([&] { answer.life = tov_identity_life(pid, {}); });
    answer.looks = kernel().calls(tov_test::CALL_OPEN) - looks;
    return answer;
  }
  static constexpr answer_s LIVES{TOV_LIFE_LIVES, 0, 1};
  static constexpr answer_s THREADS{TOV_LIFE_THREADS, 0, 1};
  static constexpr answer_s ENDED{TOV_LIFE_ENDED, 0, 1};
  static constexpr answer_s ENDED_TWICE{TOV_LIFE_ENDED, 0, 2};
  static constexpr answer_s UNKNOWN{TOV_LIFE_UNKNOWN, 0, 1};

  friend std::ostream &operator<<(std::ostream &out, const answer_s &answer) {
    return out << answer.life << " after " << answer.after_us << " us, " << answer.looks
               << " looks";
  }

  static constexpr pid_t WRITTEN = 4711;  // a process of which there is only this text
  static answer_s ask_about(const std::string &text) {
    kernel().write_file("/proc/" + std::to_string(WRITTEN) + "/stat", text);
    return ask(WRITTEN);
  }
};

}  // namespace

TEST_F(TovIdentityLife, LivingStatesAreSeenAtOnce) {
  const pid_t pid = kernel().start({"/bin/x"});
  for (const char state : {'R', 'S', 'D', 'T', 't', 'I', 'W', 'P', 'K'}) {
    kernel().process(pid).state = state;
    EXPECT_EQ(ask(pid), LIVES) << state;
  }
  EXPECT_EQ(ask(kernel().start_thread(pid)), LIVES) << "a thread";
}

TEST_F(TovIdentityLife, ZombieWithoutAnotherThreadIsDeadAtOnce) {
  const pid_t pid = kernel().start({"/bin/x"});
  for (const char state : {'Z', 'X', 'x'}) {
    kernel().process(pid).state = state;
    for (const char *name : {"x", "a) S 1 (b", ") S"}) {
      kernel().process(pid).name = name;
      EXPECT_EQ(ask(pid), ENDED) << state << name;
    }
  }
}

TEST_F(TovIdentityLife, ZombieWhoseThreadsRunHasNotEnded) {
  const pid_t pid = kernel().start({"/bin/x"});
  const pid_t thread = kernel().start_thread(pid);
  for (const char state : {'Z', 'X', 'x'}) {
    kernel().process(pid).state = state;
    EXPECT_EQ(ask(pid), THREADS) << state;
    EXPECT_EQ(ask(thread), LIVES);
  }
  kernel().reap(thread);
  EXPECT_EQ(ask(pid), ENDED);
}

TEST_F(TovIdentityLife, MissingEntryIsLookedForTwice) {
  EXPECT_EQ(ask(4711), ENDED_TWICE);
}

TEST_F(TovIdentityLife, VanishingBetweenOpenAndReadIsADeath) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().before(tov_test::CALL_READ, 1, [=] { kernel().end(pid); });
  EXPECT_EQ(ask(pid), ENDED_TWICE);
}

// The first thread's entry goes when another one executes a program, and the id goes on.
TEST_F(TovIdentityLife, EntryThatIsBackAtTheSecondLookLives) {
  kernel().before(tov_test::CALL_OPEN, 2, [] {
    kernel().set_next_pid(4711);
    kernel().start({"/bin/x"});
  });
  EXPECT_EQ(ask(4711), (answer_s{TOV_LIFE_LIVES, 0, 2}));
  kernel().fail(tov_test::CALL_READ, 1, ESRCH);
  EXPECT_EQ(ask(4711), (answer_s{TOV_LIFE_LIVES, 0, 2}));
}

TEST_F(TovIdentityLife, ReleasedZombieIsLookedForTwice) {
  const std::string released = "4711 (x) Z 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 0 0 1 0\n";
  EXPECT_EQ(ask_about(released), ENDED_TWICE);
  kernel().before(tov_test::CALL_OPEN, 2, [] {
    kernel().set_next_pid(WRITTEN);
    kernel().start({"/bin/x"});
  });
  EXPECT_EQ(ask(WRITTEN), (answer_s{TOV_LIFE_LIVES, 0, 2}));
}

TEST_F(TovIdentityLife, NumbersThatNameNoProcessAreDeadWithoutALook) {
  for (const pid_t pid : {0, -1, INT_MIN})
    EXPECT_EQ(ask(pid), (answer_s{TOV_LIFE_ENDED, 0, 0})) << pid;
}

TEST_F(TovIdentityLife, NoFailureOfACallIsADeath) {
  const pid_t living = kernel().start({"/bin/x"});
  const pid_t zombie = kernel().start({"/bin/x"});
  kernel().process(zombie).state = 'Z';
  for (const pid_t pid : {living, zombie, pid_t{4711}}) {
    for (const int error : {EMFILE, ENFILE, ENOMEM, EACCES, EPERM, EIO, ELOOP, ENOTDIR}) {
      kernel().fail(tov_test::CALL_OPEN, 1, error);
      EXPECT_EQ(ask(pid), UNKNOWN) << error;
      if (pid == 4711) continue;
      kernel().fail(tov_test::CALL_READ, 1, error);
      EXPECT_EQ(ask(pid), UNKNOWN) << error;
    }
  }
  kernel().fail(tov_test::CALL_OPEN, 2, EMFILE);
  EXPECT_EQ(ask(4711), (answer_s{TOV_LIFE_UNKNOWN, 0, 2}));
}

TEST_F(TovIdentityLife, InterruptedAndShortReadsAreResumed) {
  const pid_t pid = kernel().start({"/bin/x"});
  kernel().process(pid).state = 'Z';
  kernel().transfer_limit = 1;
  kernel().fail(tov_test::CALL_READ, 5, EINTR);
  EXPECT_EQ(ask(pid), ENDED);
}

TEST_F(TovIdentityLife, TextThatIsNotUnderstoodIsNotKnown) {
  const std::string begin = "4711 (x) Z 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0";
  ASSERT_EQ(ask_about(begin + " 1 0 1 0\n"), ENDED);
  for (const char *rest : {"", " ", " 1", " x 0 1 0\n", " 1x 0 1 0\n", " -1 0 1 0\n", "  0 1 0\n",
                           " 99999999999999999999 0 1 0\n"})
    EXPECT_EQ(ask_about(begin + rest), UNKNOWN) << rest;
  for (const char *text :
       {"", "4711", "4711 (x", "4711 (x)", "4711 (x) ", "4711 (x)Z", "4711 (x) Z"})
    EXPECT_EQ(ask_about(text), UNKNOWN) << text;
}
