// The fixture of the module tests: the daemon's world, without the daemon.
//
// The test program moves into a private root before its first test. There each test finds empty
// registries, open event logs, a receiver of the system log, the shared area of the watched
// threads, none of the files that change a setting, and none of the children of the test before
// it. What a test changes of that is put back behind it; only `quit` stays as it is until
// the next test begins, so that a suite can ask whether its server has ended.
//
// Records of processes that are gone carry ids above the largest that the kernel gives out, so
// no process can ever be taken for them. Programs: program.h, child.h of tests/support.
//
// Why registries and logs are opened once: a daemon does so once in its life, and a server that
// runs through a whole suite of tests keeps using both.
#ifndef TOV_TEST_MODULE_WORLD_H
#define TOV_TEST_MODULE_WORLD_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/tov_pidfile.h"
#include "core/registry/tov_chain.h"
#include "core/tov_core.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_log.h"
#include "tests/module/log_listener.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/child.h"
#include "tests/support/children.h"
#include "tests/support/event_log.h"
#include "tests/support/files.h"
#include "tests/support/registries.h"
#include "util/tov_utils.h"

namespace tov_test {

// Ids of processes that never were: GONE, GONE + 1, ... (the kernel's largest is 4194304).
inline constexpr pid_t GONE = 5'000'000;

// A process's command line as the daemon notes it.
inline std::string cmdline_of(pid_t pid) {
  char text[4096] = "";
  pid_to_cmdline(pid, text, sizeof text);
  return text;
}

class World : public testing::Test, protected Registries {
 protected:
  static void SetUpTestSuite() {
    static bool opened = false;
    if (!std::exchange(opened, true)) open_once();
  }

  void SetUp() override {
    clear();
    tov_flag_set(quit, 0);
    tov_make_directories();
    logs().forget();
    (void)notices();
  }

  void TearDown() override {
    end_children();  // first: they would go on writing
    clear();
  }

  // ---- registration files -------------------------------------------------------------------

  static std::string file_of(const tov_pid_t &record) {
    char path[256];
    tov_get_db_file_name(record.vsd_id, record.pid, record.process, path, sizeof path);
    return path;
  }

  // Writes the file of a record as its process would have done; no process holds its lock.
  static std::string write_file_of(const tov_pid_t &record) {
    std::string path = file_of(record);
    write_file(path, std::to_string(record.pid) + "\n" + std::to_string(record.action) + "\n" +
                         record.process);
    return path;
  }

  // A process that holds the lock on a registration file as one does that has not ended yet.
  static Child holder_of(const std::string &path) {
    return Child([&] {
      const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
      if (fd < 0 || lock_file(fd) != 0) _exit(1);
    });
  }

  // ---- what is said -------------------------------------------------------------------------

  // The texts of one event log since the last call.
  static std::vector<std::string> events(int type) { return logs().news(type); }

  // The system log's receiver, for a test that looks at whole datagrams.
  static LogListener &listener() {
    static LogListener listener;
    return listener;
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
  static EventLogReader &logs() {
    static EventLogReader reader;
    return reader;
  }

  static void open_once() {
    adopt_orphans();
    setenv("DATA_QXOS_DIR", "/data/.qxos/vsd/0", 1);  // where the debug file would lie: none there
    tov_make_dir(TOV_RUN_DIR);
    tov_make_directories();
    init_registries();
    ASSERT_EQ(tov_sys_init_alive_info(true), 0);
    tov_log_init();
  }

  static void clear() {
    alarm(0);
    for (int module = 0; module < TOV_MODULE_END; module++)
      set_diagnostics(TOV_DBG_END, module);
    empty_registries();
    for (const char *path :
         {TOV_JOURNAL_1, TOV_JOURNAL_2, TOV_FORK_FILE, TOV_CONFIG_FILE, TOV_NO_REBOOT_FILE,
          TOV_DEV_MON_FILE, TOV_DEBUG_LOG_FILE, TOV_DEBUG_TIME_FILE, TOV_THIRD_PART_LIST,
          TOV_HA_CONFIG_FILE, TOV_HA_MIRROR_FILE, TOV_FORK_REASON_FILE, "/tmp/vsd",
          "/sys/kernel/qx_lowmem_killer"})
      clear_path(path);
    tov_flag_set(tov_single_ps_ha_enable, 1);
    tov_flag_set(tov_single_ps_ha_enable_time, 0);
    tov_log_cnt = 0;
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_WORLD_H
