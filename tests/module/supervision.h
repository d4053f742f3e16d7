// The surroundings of the daemon's decisions: registries, registration files, event logs, the
// system log, the self-healing service, and programs that can be started, watched and killed.
//
// Everything lives in the private root of the test program. Records of processes that are gone
// carry ids above the largest that the kernel gives out, so nobody can ever be taken for them.
// Programs are copies of the victim (support/programs/victim.cpp) under names of their own, because
// processes are visible from every device at once.
#ifndef TOV_TEST_MODULE_SUPERVISION_H
#define TOV_TEST_MODULE_SUPERVISION_H

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "client/tov_pidfile.h"
#include "core/registry/tov_chain.h"
#include "core/tov_core.h"
#include "include/tov_ras_comp_config.h"
#include "log/tov_log.h"
#include "proc/tov_proc.h"
#include "tests/module/fake_daemon.h"
#include "tests/module/log_listener.h"
#include "tests/module/private_root.h"
#include "tests/support/birth.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/in_child.h"
#include "tests/support/processes.h"

namespace tov_test {

// Ids of processes that never were: GONE, GONE + 1, ... (the kernel's largest is 4194304).
inline constexpr pid_t GONE = 5'000'000;

inline constexpr size_t STAMP_LENGTH = 25;  // "2026-11-15 102541 004512 "

// Removes a file or a whole directory, if it is there.
inline void clear_path(const std::string &path) {
  std::filesystem::remove_all(path);
}

inline std::vector<std::string> lines_of(const std::string &text, const std::string &end) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t stop = std::min(text.find(end, at), text.size());
    lines.push_back(text.substr(at, stop - at));
    at = stop + end.size();
  }
  return lines;
}

// A copy of the victim.
struct Program {
  std::string name;
  std::string path;

  explicit Program(const std::string &prefix)
      : name(unique_name(prefix)), path("/opt/supervised/" + name) {
    std::filesystem::create_directories("/opt/supervised");
    std::filesystem::copy_file(TOV_VICTIM, path, std::filesystem::copy_options::overwrite_existing);
    clear_path(report());
  }

  std::string report() const { return "/data/victim." + name; }

  // What its instances told about their start.
  std::vector<Birth> births() const {
    std::vector<Birth> all;
    for (const std::string &line : lines_of(read_file(report()), "\n"))
      if (const auto birth = parse_birth(line)) all.push_back(*birth);
    return all;
  }

  // Waits for a start; the Nth, counted from 1.
  Birth birth(size_t number = 1) const {
    if (!wait_until([&] { return births().size() >= number; }, Millis(10'000)))
      throw std::runtime_error(name + ": no birth number " + std::to_string(number));
    return births()[number - 1];
  }
};

// Starts a program as a child of the test and waits until it is executed. Returns its id.
inline pid_t start(const std::string &command) {
  std::istringstream text(command);
  std::vector<std::string> words;
  for (std::string word; text >> word;)
    words.push_back(word);
  std::vector<char *> argv;
  argv.reserve(words.size() + 1);
  for (std::string &word : words)
    argv.push_back(word.data());
  argv.push_back(nullptr);
  int executed[2];
  if (pipe2(executed, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  const pid_t child = fork();
  if (child == 0) {
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(executed[1]);
  char nothing;
  (void)!read(executed[0], &nothing, 1);  // its last writer goes at the execution
  close(executed[0]);
  return child;
}

// Ends and buries every child, adopted ones included.
inline void end_children() {
  for (;;) {
    std::vector<pid_t> children;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::istringstream ids(read_file(task.path().string() + "/children"));
      for (pid_t child = 0; ids >> child;)
        children.push_back(child);
    }
    if (children.empty()) return;
    for (const pid_t child : children)
      kill(child, SIGKILL);
    for (const pid_t child : children)
      (void)waitpid(child, nullptr, 0);
  }
}

// Ends one child and buries it.
inline void end(pid_t child) {
  kill(child, SIGKILL);
  (void)waitpid(child, nullptr, 0);
}

// Turns a marker file or any other small file on for as long as it lives.
class TemporaryFile {
 public:
  explicit TemporaryFile(std::string path, const std::string &text = "") : path_(std::move(path)) {
    std::filesystem::create_directories(std::filesystem::path(path_).parent_path());
    write_file(path_, text);
  }
  ~TemporaryFile() { clear_path(path_); }
  TemporaryFile(const TemporaryFile &) = delete;
  TemporaryFile &operator=(const TemporaryFile &) = delete;
  bool exists() const { return access(path_.c_str(), F_OK) == 0; }

 private:
  std::string path_;
};

// Stands in for the self-healing service: a program that notes what it is asked for.
class SelfHealing {
 public:
  SelfHealing() {
    clear_path(NOTES);
    write_file(HOOK, std::string("#!/bin/sh\nprintf '[%s]' \"$@\" >>") + NOTES + "\necho END >>" +
                         NOTES + "\n");
    chmod(HOOK, 0755);
  }
  ~SelfHealing() { clear_path(HOOK); }
  SelfHealing(const SelfHealing &) = delete;
  SelfHealing &operator=(const SelfHealing &) = delete;

  // The first request as "[ACTION][PID][MODULE][REASON]".
  std::string request() const {
    wait_until([] { return read_file(NOTES).ends_with("END\n"); }, Millis(10'000));
    const std::string notes = read_file(NOTES);
    return notes.substr(0, notes.find("END\n"));
  }

 private:
  static constexpr char HOOK[] = "/etc/tov/selfhealing";
  static constexpr char NOTES[] = "/data/selfhealing.notes";
};

class Supervision : public testing::Test {
 protected:
  void SetUp() override {
    open_logs_once();
    for (const char *path :
         {TOV_JOURNAL_1, TOV_JOURNAL_2, TOV_FORK_FILE, TOV_CONFIG_FILE, TOV_NO_REBOOT_FILE,
          TOV_DEV_MON_FILE, TOV_DEBUG_LOG_FILE, TOV_DEBUG_TIME_FILE, TOV_THIRD_PART_LIST,
          "/tmp/vsd", "/sys/kernel/qx_lowmem_killer"})
      clear_path(path);
    tov_make_directories();
    for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains, &tov_chains_delay})
      tov_init_chains(chains);
    tov_flag_set(quit, 0);
    tov_flag_set(tov_single_ps_ha_enable, 1);
    tov_flag_set(tov_single_ps_ha_enable_time, 0);
    tov_log_cnt = 0;
    alarm(0);
    for (int type = 0; type < TOV_LOG_TYPE_NUM; type++)
      (void)events(type);
    (void)notices();
  }

  void TearDown() override {
    alarm(0);
    for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains, &tov_chains_delay})
      tov_destroy_chains(chains);
    end_children();
  }

  // ---- registries ---------------------------------------------------------------------------

  static tov_pid_t *add(pid_t pid, const std::string &process, int action = RESPAWN, int vsd_id = 0,
                        tov_chains_t &chains = tov_chains) {
    tov_pid_t *record = tov_chain_new_record();
    record->pid = pid;
    record->vsd_id = vsd_id;
    record->action = action;
    (void)snprintf(record->process, sizeof record->process, "%s", process.c_str());
    tov_chains_guard_t guard(chains);
    tov_chain_insert(&chains, record);
    return record;
  }

  static tov_pid_t *find(pid_t pid, tov_chains_t &chains = tov_chains) {
    tov_chains_guard_t guard(chains);
    return __tov_find_pid(&chains, pid);
  }

  static int count(tov_chains_t &chains = tov_chains) {
    tov_chains_guard_t guard(chains);
    return chains.node_num;
  }

  // ---- registration files -------------------------------------------------------------------

  static std::string file_of(const tov_pid_t &record) {
    char path[256];
    tov_get_db_file_name(record.vsd_id, record.pid, record.process, path, sizeof path);
    return path;
  }

  // Writes the file of a record as its process would have done; nobody holds its lock.
  static std::string write_file_of(const tov_pid_t &record) {
    std::string path = file_of(record);
    write_file(path, std::to_string(record.pid) + "\n" + std::to_string(record.action) + "\n" +
                         record.process);
    return path;
  }

  // ---- what is said -------------------------------------------------------------------------

  // The lines of one event log since the last call, without their stamps.
  static std::vector<std::string> events(int type) {
    const std::string text = read_file(log_paths()[static_cast<size_t>(type)]);
    size_t &seen = log_seen()[static_cast<size_t>(type)];
    std::vector<std::string> lines = lines_of(text.substr(seen), "\r\n");
    seen = text.size();
    for (std::string &line : lines)
      line.erase(0, STAMP_LENGTH);
    return lines;
  }

  // The notices since the last call, without the head of the datagram.
  static std::vector<std::string> notices() {
    std::vector<std::string> texts;
    for (std::string text = listener().next_text(); text != "(none)"; text = listener().next_text())
      texts.push_back(text);
    return texts;
  }

  static std::string diagnostics(const std::function<void()> &call) {
    return caught_diagnostics(TOV_MODULE_PUB, call);
  }

 private:
  static LogListener &listener() {
    static LogListener listener;
    return listener;
  }
  static std::vector<std::string> &log_paths() {
    static std::vector<std::string> paths(TOV_LOG_TYPE_NUM);
    return paths;
  }
  static std::vector<size_t> &log_seen() {
    static std::vector<size_t> seen(TOV_LOG_TYPE_NUM);
    return seen;
  }

  static void open_logs_once() {
    static const char *const names[TOV_LOG_TYPE_NUM] = {
        "tov_kill_process.log", "tov_restart_process.log", "tov_run_event.log",
        "tov_error_event.log",  "user_register_alive.log", "user_register_restart.log"};
    static bool open = false;
    if (open) return;
    open = true;
    adopt_orphans();
    setenv("DATA_QXOS_DIR", "/data/.qxos/vsd/0", 1);  // where the debug file would lie: none there
    tov_make_dir(TOV_RUN_DIR);
    tov_make_directories();
    tov_log_init();
    for (size_t type = 0; type < TOV_LOG_TYPE_NUM; type++)
      for (const std::string &name : names_in(TOV_LOG_DIR))
        if (name.starts_with(names[type])) log_paths()[type] = TOV_LOG_DIR "/" + name;
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_SUPERVISION_H
