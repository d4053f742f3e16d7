// The forecast of an exit beside what the decision really does, over random situations.
#include "core/policy/foresee.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <sys/types.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <ostream>
#include <random>
#include <set>
#include <string>

#include "core/policy/exit.h"
#include "core/policy/rules.h"
#include "core/policy/search.h"
#include "core/policy/succession.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "proc/find.h"
#include "tests/module/program.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/clock.h"
#include "util/identity.h"
#include "util/tov_utils.h"

using tov_test::Child;
using tov_test::GONE;
using tov_test::Program;

namespace {

constexpr int CASES = 120;
constexpr int CORE_DUMP = 0x80;

// One situation in plain values.
struct Situation {
  tov_situation_t asked;
  tov_ending_t ending;
  int action;
  bool suspended;
  int count;
  int restart_time;
};

std::ostream &operator<<(std::ostream &out, const Situation &of) {
  return out << "lives " << of.asked.lives << ", twin " << of.asked.twin << ", locked "
             << of.asked.locked << ", runs again " << of.asked.runs_again << ", dev_mon "
             << of.asked.dev_mon << ", code " << of.ending.exit_code << ", force "
             << of.ending.force << ", lost " << of.ending.lost << ", action " << of.action
             << ", suspended " << of.suspended << ", count " << of.count << ", restart time "
             << of.restart_time << (of.asked.uncertain ? ", uncertain" : "");
}

class TovForeseen : public tov_test::World {
 protected:
  // A situation that can be made; half of the questions are answered with no, so that later rules
  // get their turn.
  Situation any() {
    Situation of{};
    of.ending.lost = chance(3);
    if (!of.ending.lost) {
      static constexpr int codes[] = {0, SIGKILL, SIGTERM, SIGTERM | CORE_DUMP,
                                      SIGSEGV | CORE_DUMP};
      of.ending.exit_code = codes[pick(std::size(codes))];
      of.ending.force = chance(3) ? 1 : 0;
    }
    of.asked.lives = chance(4);
    of.asked.uncertain = !of.asked.lives && !of.ending.lost && chance(8);
    of.asked.twin = chance(2) ? TOV_TWIN_NONE : static_cast<tov_twin_e>(pick(4));
    // The exit of a suspended task has been decided about: only a sweep could ask again.
    of.suspended = of.ending.lost && of.asked.twin != TOV_TWIN_IN_CHARGE && chance(6);
    of.asked.locked = chance(4);
    of.asked.runs_again = of.ending.lost && chance(3);
    of.asked.dev_mon = chance(4);
    static constexpr int actions[] = {RESPAWN, RESPAWN, RESPAWN, NORMAL_EXIT, IGNORE_EXIT};
    of.action = actions[pick(std::size(actions))];
    of.count = static_cast<int>(pick(5));
    of.restart_time = of.ending.lost && chance(2) ? 3 : 0;
    of.asked.now = tov_get_time();
    return of;
  }

  // Makes the situation, lets the decision loose on it and says what came of it.
  void compare(const Situation &of, int number) {
    const Program program("foreseen");
    const Child idle, other;
    const pid_t gone = GONE + 10 * number;
    const pid_t half = of.asked.uncertain ? start_leaderless(program) : 0;
    const pid_t pid = of.asked.lives ? idle.pid() : half > 0 ? half : gone;
    tov_pid_t *record = add(pid, program.path, of.action);
    record->count = of.count;
    record->restart_time = of.restart_time;
    record->tm = of.count > 0 ? of.asked.now : 0;
    record->flags = of.asked.twin == TOV_TWIN_IN_CHARGE ? 0 : TOV_FLAG_STARTED;
    if (of.suspended) {
      const tov_chains_guard_t held(tov_chains);
      tov_record_suspend(held, record, of.asked.now);
    }
    if (of.asked.twin != TOV_TWIN_NONE)
      add(of.asked.twin == TOV_TWIN_DEAD ? gone + 1 : other.pid(), program.path);
    std::optional<Child> holder;
    if (of.asked.locked) holder.emplace(holding(write_file_of(*record)));
    if (of.asked.dev_mon) tov_test::write_file(TOV_DEV_MON_FILE, "");
    pid_t again = 0;
    if (of.asked.runs_again) {
      again = tov_test::start(program.path);
      tov_test::write_file(TOV_THIRD_PART_LIST, program.path + " TOV_RESTART\n");
    }

    const tov_foreseen_t foreseen = tov_foresee_exit(*record, of.asked, of.ending);
    reached_.insert(foreseen.act);
    const tov_pid_t before = *record;
    if (of.ending.lost) {
      const tov_chains_guard_t held(tov_chains);
      tov_decide_lost_exit(held, record, std::nullopt);
      if (foreseen.act == TOV_EXIT_HAND_OVER) answer_look(held, record);
      if (foreseen.wait_s > 0) end_wait(held, record, foreseen.wait_s);
    } else {
      tov_handle_netlink_exit(pid, of.ending.exit_code, of.ending.force);
    }
    expect(foreseen, before, again, program);
    for (const pid_t started : {again, half})
      if (started > 0) tov_test::end_child(started);
  }

 private:
  // A process whose first thread has ended.
  static pid_t start_leaderless(const Program &program) {
    const pid_t pid = tov_test::start(program.path + " leader-exit");
    EXPECT_TRUE(tov_test::wait_until([&] { return tov_identity_life(pid, {}) == TOV_LIFE_THREADS; },
                                     tov_test::PATIENT_MS));
    return pid;
  }

  // The record looks whether its program runs: what /proc says, and what follows from it.
  static void answer_look(const tov_chains_guard_t &held, tov_pid_t *record) {
    EXPECT_EQ(record->start.wait, TOV_WAIT_LOOK);
    while (record->start.looked == TOV_LOOKED_NOT_YET) {
      tov_succession_t succession(held, *record);
      tov_scan_t scan;
      scan.ask([&](pid_t pid, const char *command) { return succession.consider(pid, command); });
      const int result = scan.go_on(tov_scan_t::ALL).value_or(0);
      tov_search_look_ended(held, record, result, succession.found());
    }
    tov_exit_go_on(held, record);
  }

  // The record waits for its `restart_time`: the time comes at once.
  static void end_wait(const tov_chains_guard_t &held, tov_pid_t *record, int wait_s) {
    EXPECT_EQ(record->start.wait, TOV_WAIT_TIME);
    EXPECT_NEAR(static_cast<double>(record->start.due_us - tov_clock_us()), wait_s * 1e6, 1e6);
    tov_exit_go_on(held, record);
  }

  static std::function<void()> holding(const std::string &path) {
    return [path] {
      const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
      if (fd < 0 || lock_file(fd) != 0) _exit(1);
    };
  }

  void expect(const tov_foreseen_t &foreseen, const tov_pid_t &before, pid_t again,
              const Program &program) {
    const tov_pid_t after = record_of(tov_chains, before.pid);
    const bool still_there = after.pid != 0;
    const bool parked = find(before.pid, tov_chains_delay) != nullptr;
    const bool noted =
        after.force_restart != before.force_restart || after.exit_signal != before.exit_signal;
    const bool stopped = !events(TOV_LOG_RUN_EVENT).empty();
    EXPECT_EQ(parked, foreseen.act == TOV_EXIT_DEFER);
    const bool handed_over = again > 0 && record_of(tov_chains, again).pid != 0;
    EXPECT_EQ(handed_over, foreseen.act == TOV_EXIT_HAND_OVER);
    switch (foreseen.act) {
      case TOV_EXIT_ASK_AGAIN:
        EXPECT_TRUE(tov_record_is_ending(after));
        EXPECT_FALSE(noted);
        break;
      case TOV_EXIT_LEAVE:
      case TOV_EXIT_WAIT_FOR_ALARM:
        EXPECT_TRUE(still_there);
        EXPECT_FALSE(noted);
        break;
      case TOV_EXIT_DROP:
      case TOV_EXIT_HAND_OVER:
        EXPECT_FALSE(still_there);
        EXPECT_FALSE(stopped);
        break;
      case TOV_EXIT_ACCEPT_STOP:
        EXPECT_FALSE(still_there);
        EXPECT_TRUE(stopped);
        break;
      case TOV_EXIT_DEFER:
      case TOV_EXIT_LEAVE_DEAD:
        EXPECT_TRUE(still_there);
        EXPECT_EQ(after.pid, before.pid);
        EXPECT_EQ(after.count, before.count);
        break;
      case TOV_EXIT_RESTART:
        expect_restart(foreseen, after, still_there, program);
        break;
      case TOV_EXIT_NOTE:
      case TOV_EXIT_DROP_OTHER:
      case TOV_EXIT_LOOK:
      case TOV_EXIT_ACT_NUM:
        ADD_FAILURE() << "no rule ends with this";
        break;
    }
  }

  void expect_restart(const tov_foreseen_t &foreseen, const tov_pid_t &after, bool still_there,
                      const Program &program) {
    EXPECT_EQ(still_there, foreseen.suspended);
    if (foreseen.suspended) {
      EXPECT_TRUE(tov_record_is_suspended(after));
      return;
    }
    const tov_pid_t started = record_of(tov_chains, program.birth().pid);
    EXPECT_EQ(started.pid, program.birth().pid);
    EXPECT_EQ(started.count, foreseen.count);
    bool told = false;
    for (const std::string &event : events(TOV_LOG_RESTART))
      told = told || event.find("HA_") != std::string::npos;
    EXPECT_NE(told, foreseen.silent);
  }

  bool chance(unsigned int one_in) { return pick(one_in) == 0; }
  size_t pick(size_t choices) {
    return std::uniform_int_distribution<size_t>(0, choices - 1)(random_);
  }

 protected:
  static constexpr unsigned int SEED = 20260;
  std::mt19937 random_{SEED};
  std::set<tov_exit_act_e> reached_;
};

}  // namespace

TEST_F(TovForeseen, IsWhatHappens) {
  for (int number = 0; number < CASES && !HasFailure(); number++) {
    const Situation of = any();
    SCOPED_TRACE(testing::Message() << "seed " << SEED << ", case " << number << ": " << of);
    compare(of, number);
    TearDown();
    SetUp();
  }
  // Every way to end was among them: the look is not foreseen, but what it shows.
  EXPECT_EQ(reached_.size(), size_t{TOV_EXIT_ACT_NUM} - 3);
}
