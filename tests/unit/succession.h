// The fixture of successions: a listed program, the end of its process, and the processes among
// which the next one is looked and searched for.
#ifndef TOV_TEST_UNIT_SUCCESSION_H
#define TOV_TEST_UNIT_SUCCESSION_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "client/tov_pidfile.h"
#include "core/policy/exit.h"
#include "core/policy/search.h"
#include "core/policy/succession.h"
#include "core/registry/record.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/waiting.h"
#include "util/procfs.h"
#include "util/tov_utils.h"

namespace tov_test {

inline constexpr int64_t TICK_US = 10'000;    // two processes so far apart have two start times
inline constexpr int EXITED_WITH_1 = 1 << 8;  // wait status
inline constexpr int FIRST_SCAN_MS = 100;     // after a start
inline constexpr int SECOND_SCAN_MS = 200;    // after the first
inline constexpr char DEVICE_1[] = "3100";    // supplementary groups of its members
inline constexpr char LIST[] = "/opt/daemon -d TOV_RESTART\n";

class Succession : public Waiting {
 protected:
  using words_t = std::vector<std::string>;

  Succession() {
    kernel().make_dir("/tmp/vsd/1/tov/db");
    list(LIST);
  }

  static void list(const std::string &text) { kernel().write_file(TOV_THIRD_PART_LIST, text); }
  static words_t words() { return {LISTED, "-d"}; }
  static words_t title() { return {"daemon:", "serving", "requests"}; }

  // ---- processes ------------------------------------------------------------------------------

  // Starts a process in a later clock tick than all before.
  static pid_t starts(words_t words, const std::string &groups = "") {
    kernel().pass(TICK_US);
    const pid_t pid = kernel().start(std::move(words));
    kernel().process(pid).groups = groups;
    return pid;
  }
  // A process forks, and its child belongs to nobody.
  static pid_t copy_of(pid_t maker) {
    const process_s from = kernel().process(maker);
    const pid_t pid = starts(from.words, from.groups);
    process_s &copy = kernel().process(pid);
    copy.session = from.session;
    copy.stack = from.stack;
    copy.name = from.name;
    copy.exe = from.exe;
    copy.exe_file = from.exe_file;
    return pid;
  }
  // The same, and its command line tells something else.
  static pid_t titled_copy_of(pid_t maker) {
    const pid_t pid = copy_of(maker);
    kernel().set_title(pid, title());
    return pid;
  }

  // ---- the listed program ---------------------------------------------------------------------

  static std::string text_of(const words_t &words) {
    std::string text = words.at(0);
    for (size_t i = 1; i < words.size(); i++)
      text += " " + words[i];
    return text;
  }
  // A record with its living process and its registration file.
  static tov_pid_t *supervised(const words_t &words, int vsd_id = 0, int action = RESPAWN) {
    const pid_t pid = starts(words, vsd_id == 1 ? DEVICE_1 : "");
    tov_pid_t *record = add(pid, text_of(words), action, vsd_id);
    EXPECT_EQ(tov_db_keep(record), 0);
    return record;
  }
  static tov_pid_t *supervised() { return supervised(words()); }

  // Its process ends, and that is reported.
  static void ends(const tov_pid_t *record, int exit_code = SIGKILL) {
    kernel().end(record->pid);
    die(record, exit_code);
  }
  // Its process ends, and nobody knows how.
  static void ends_unheard(tov_pid_t *record) {
    kernel().end(record->pid);
    const tov_chains_guard_t held(tov_chains);
    tov_decide_lost_exit(held, record, std::nullopt);
  }
  // Its process was killed, and nothing runs in its place: it is started.
  void is_started_anew(const tov_pid_t *record) {
    const size_t before = forks();
    ends(record);
    run_first_look();
    ASSERT_EQ(forks(), before + 1);
    ASSERT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  }

  // ---- its child ------------------------------------------------------------------------------

  static void children_become(const words_t &words) {
    kernel().child_becomes = [words](process_s &child) {
      child.session = child.pid;
      kernel().exec(child.pid, words);
    };
  }
  // The child executes something, and that is heard.
  static void child_executes(const words_t &words) {
    kernel().exec(child(), words);
    EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXEC, child(), 0}));
  }
  static void child_ends(int exit_code = 0) {
    const pid_t pid = child();
    kernel().end(pid);
    EXPECT_TRUE(tov_search_keeps({TOV_EVENT_EXIT, pid, static_cast<uint32_t>(exit_code)}));
    kernel().reap(pid);
  }
  void first_scan() { run(FIRST_SCAN_MS * US_PER_MS); }
  void second_scan() { run(SECOND_SCAN_MS * US_PER_MS); }

  // ---- what comes of it -----------------------------------------------------------------------

  static std::vector<std::string> files(int vsd_id = 0) {
    int error = 0;
    const std::string dir = "/tmp/vsd/" + std::to_string(vsd_id) + "/tov/db";
    std::vector<std::string> names = kernel().names_in(dir.c_str(), &error);
    EXPECT_EQ(error, 0);
    return names;
  }
  // The record stands for this process, and so does the one file that it has.
  static void expect_has(const tov_pid_t *record, pid_t pid, int vsd_id = 0) {
    EXPECT_EQ(record->pid, pid);
    EXPECT_TRUE(tov_record_has_process(*record));
    const std::string id = std::to_string(pid);
    ASSERT_THAT(files(vsd_id), testing::ElementsAre("daemon." + id));
    const std::string dir = "/tmp/vsd/" + std::to_string(vsd_id) + "/tov/db/";
    EXPECT_THAT(kernel().text_of(dir + "daemon." + id), testing::StartsWith(id + "\n"));
  }
  // It was looked, nothing was found, and the program is started.
  static void expect_started(const tov_pid_t *record) {
    EXPECT_EQ(forks(), 1u);
    EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
  }
  // It was looked, and the program was not started beside this process.
  static void expect_found(const tov_pid_t *record, pid_t pid) {
    EXPECT_EQ(forks(), 0u);
    expect_has(record, pid);
  }

  // What a record that looks or searches finds among these processes, in this order.
  static tov_successor_t found_among(const tov_pid_t &record, const std::vector<pid_t> &pids) {
    return asked_among(record, pids).found();
  }
  static tov_succession_t asked_among(const tov_pid_t &record, const std::vector<pid_t> &pids) {
    std::optional<tov_succession_t> succession;
    {
      const tov_chains_guard_t held(tov_chains);
      succession.emplace(held, record);
    }
    for (const pid_t pid : pids) {
      char command[TOV_PROCESS_SIZE];
      EXPECT_NE(pid_to_cmdline(pid, command, sizeof command), nullptr);
      rtrim(command);
      const bool has_found = succession->consider(pid, command);
      EXPECT_EQ(has_found, succession->found().pid != 0);
    }
    return *succession;
  }

  // A burst that is under way.
  static void begin_burst(tov_pid_t *record) {
    const tov_chains_guard_t held(tov_chains);
    tov_record_count_start(held, record, true, kernel().now_us() / US_PER_S);
  }
};

// The search behind a start.
class SuccessionSearch : public Succession {
 protected:
  enum {
    RETRIES_S = 6,  // longer than any search
    LOWEST_ID = 900,
    LOW_ID = 5000,
    HIGH_ID = 6000,
  };

  // A record whose program was killed, and whose child is still the daemon's copy.
  tov_pid_t *started(tov_pid_t *record) {
    is_started_anew(record);
    return record;
  }
  tov_pid_t *started() { return started(supervised()); }
  // One whose child has executed the program.
  tov_pid_t *executed() {
    tov_pid_t *record = started();
    child_executes(words());
    return record;
  }
  // One whose child was not heard executing anything, and has ended.
  tov_pid_t *abandoned(int exit_code = 0) {
    tov_pid_t *record = started();
    child_ends(exit_code);
    return record;
  }
  // Another program beside it, which was killed and started.
  const tov_pid_t *started_beside() { return started(supervised({LISTED, "-x"})); }

  // A titled copy in a session of its own.
  static pid_t daemon_of(pid_t maker) {
    const pid_t pid = titled_copy_of(maker);
    kernel().process(pid).session = pid;
    return pid;
  }
  // A program that runs under a title.
  static pid_t titled() {
    const pid_t pid = starts(words());
    kernel().set_title(pid, title());
    return pid;
  }

  // Until the search would give up.
  void search_on() { run(RETRIES_S * US_PER_S); }
  // The child ends, and the first scan finds what it has become.
  void expect_becomes(const tov_pid_t *record, pid_t pid, int exit_code = 0) {
    child_ends(exit_code);
    first_scan();
    expect_has(record, pid);
  }
  //   keeps  the id that the record has afterwards: the dead one's, or a child's that failed
  void expect_not_found(const tov_pid_t *record, pid_t keeps) {
    EXPECT_TRUE(waits_for(record, TOV_WAIT_SEARCH));
    search_on();
    EXPECT_FALSE(tov_record_is_starting(*record));
    EXPECT_EQ(record->pid, keeps);
    EXPECT_EQ(forks(), 1u);
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_UNIT_SUCCESSION_H
