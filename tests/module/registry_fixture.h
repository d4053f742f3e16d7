// What handlers and server need around them: registries, shared area, event logs; and a process
// that can be registered. Only inside a private root.
#ifndef TOV_TEST_MODULE_REGISTRY_FIXTURE_H
#define TOV_TEST_MODULE_REGISTRY_FIXTURE_H

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "core/registry/tov_chain.h"
#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"
#include "util/tov_utils.h"

namespace tov_test {

// A process of this test's own executable that does nothing until this object goes.
class IdleProcess {
 public:
  IdleProcess() {
    pid_ = fork();
    if (pid_ == 0) {
      for (;;)
        pause();
    }
  }
  // One that runs `words`.
  explicit IdleProcess(const std::vector<const char *> &words) {
    std::vector<char *> argv;
    argv.reserve(words.size() + 1);
    for (const char *word : words)
      argv.push_back(const_cast<char *>(word));
    argv.push_back(nullptr);
    const std::string program = std::filesystem::canonical(words[0]);
    pid_ = fork();
    if (pid_ == 0) {
      execv(argv[0], argv.data());
      _exit(127);
    }
    wait_until(
        [&] {
          char cmdline[4096] = "";
          pid_to_cmdline(pid_, cmdline, sizeof cmdline);
          return std::string(cmdline).starts_with(program + " ");  // executed, and its words set
        },
        std::chrono::seconds(10));
  }
  IdleProcess(const IdleProcess &) = delete;
  IdleProcess &operator=(const IdleProcess &) = delete;
  ~IdleProcess() { end(); }

  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(std::exchange(ended_ = pid_, 0), nullptr, 0);
    pid_ = 0;
  }
  // Also after it has ended.
  pid_t pid() const { return pid_ > 0 ? pid_ : ended_; }
  std::string cmdline() const {
    char text[4096] = "";
    pid_to_cmdline(pid(), text, sizeof text);
    return text;
  }

 private:
  pid_t pid_ = 0;
  pid_t ended_ = 0;
};

class RegistryFixture : public testing::Test {
 protected:
  static constexpr const char *DB_DIR = "/tmp/vsd/0/tov/db";

  static void SetUpTestSuite() {
    static bool done = false;  // once in a process's life, as in the daemon
    if (std::exchange(done, true)) return;
    std::filesystem::create_directories(TOV_LOG_DIR);
    std::filesystem::create_directories(DB_DIR);
    for (tov_chains_t *chains : registries())
      tov_init_chains(chains);
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    tov_log_init();
  }
  RegistryFixture() {
    for (tov_chains_t *chains : registries())
      tov_destroy_chains(chains);
    for (int type = 0; type < TOV_LOG_TYPE_NUM; type++)
      begin_[type] = whole_log(type).size();
  }
  ~RegistryFixture() override {
    for (tov_chains_t *chains : registries())
      tov_destroy_chains(chains);
    set_diagnostics(TOV_DBG_END);
  }

  // Other threads may be asking for it.
  static void set_diagnostics(int level) {
    __atomic_store_n(&g_tov_dbg_level[TOV_MODULE_PUB], level, __ATOMIC_RELAXED);
  }

  static std::vector<tov_chains_t *> registries() {
    return {&tov_chains, &tov_alive_chains, &tov_chains_delay};
  }

  // The texts that were logged since the test began, without their stamps and line ends.
  std::vector<std::string> events(int type) const {
    static constexpr size_t STAMP_LENGTH = 25;
    std::vector<std::string> lines;
    const std::string text = whole_log(type).substr(begin_[type]);
    for (size_t at = 0; at < text.size();) {
      const size_t end = text.find("\r\n", at);
      if (end == std::string::npos) break;
      lines.push_back(text.substr(at + STAMP_LENGTH, end - at - STAMP_LENGTH));
      at = end + 2;
    }
    return lines;
  }

  // A copy of the newest record of an id; its `pid` is 0 when there is none.
  static tov_pid_t record_of(tov_chains_t &chains, pid_t pid) {
    const tov_chains_guard_t hold(chains);
    const tov_pid_t *found = __tov_find_pid(&chains, pid);
    return found != nullptr ? *found : tov_pid_t{};
  }
  static int count_of(tov_chains_t &chains) {
    const tov_chains_guard_t hold(chains);
    return chains.node_num;
  }

 private:
  static std::string whole_log(int type) {
    static constexpr const char *names[] = {"tov_kill_process.log",    "tov_restart_process.log",
                                            "tov_run_event.log",       "tov_error_event.log",
                                            "user_register_alive.log", "user_register_restart.log"};
    for (const std::string &name : names_in(TOV_LOG_DIR)) {
      if (name.starts_with(names[type])) return read_file(std::string(TOV_LOG_DIR "/") + name);
    }
    return "";
  }
  size_t begin_[TOV_LOG_TYPE_NUM] = {};
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_REGISTRY_FIXTURE_H
