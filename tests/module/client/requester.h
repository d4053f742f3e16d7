// What the tests of a client's requests share: a process that has made none yet.
#ifndef TOV_TEST_MODULE_CLIENT_REQUESTER_H
#define TOV_TEST_MODULE_CLIENT_REQUESTER_H

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>

#include "client/tov_rpc.h"
#include "client/tov_rpc_overdue.h"
#include "client/tov_rpc_stop.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "tests/support/in_child.h"

namespace tov_test {

// It prints its diagnostics.
class Requester : public testing::Test {
 protected:
  static constexpr char DB_DIR[] = "/tmp/vsd/0/tov/db";

  Requester() {
    mkdir(TOV_RUN_DIR, 0777);
    std::filesystem::create_directories(DB_DIR);
    forget_connection();
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_VERBOSE;
  }
  ~Requester() override {
    g_tov_dbg_level[TOV_MODULE_PUB] = TOV_DBG_END;
    tov_rpc_stop_asked = nullptr;
    forget_connection();
  }
  // As in a process that made no request yet.
  static void forget_connection() {
    if (tov_rpc_sd >= 0) close(std::exchange(tov_rpc_sd, -1));
    tov_rpc_overdue_forget();
  }
  static std::string own_path() { return "/tmp/tov/.socket." + std::to_string(getpid()); }
};

// Runs `body` in a forked child; true when it returned true.
template <typename Body>
bool true_in_child(Body body) {
  return status_in_child([&] { return body() ? 0 : 1; }) == 0;
}

inline int bare_request(TOV_MSG_TYPE type, bool need_ack, bool allow_tov_exit = false) {
  return tov_rpc(type, nullptr, nullptr, 0, need_ack, allow_tov_exit);
}

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_CLIENT_REQUESTER_H
