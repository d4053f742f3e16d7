// The table of requests: what stands in each row, and that each row's handler is its own.
#include "client/requests/table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>

#include <climits>
#include <string>
#include <tuple>
#include <vector>

#include "alive/tov_sys_alive.h"
#include "client/requests/tov_msg.h"
#include "core/registry/tov_chain.h"
#include "include/tov_wire.h"
#include "tests/support/registries.h"

using testing::ElementsAre;
using testing::FieldsAre;

namespace {

constexpr pid_t TOO_HIGH_FOR_A_SLOT = TOV_ALIVE_ID_COUNT;  // its watch needs no shared area

tov_msg_xtach_t gone_process() {
  tov_msg_xtach_t payload{};
  payload.pid = INT_MAX;  // above every process id that the kernel gives
  return payload;
}

// The columns that are values.
std::vector<std::tuple<int, bool, std::string, size_t>> rows() {
  std::vector<std::tuple<int, bool, std::string, size_t>> rows;
  for (const tov_request_t &request : tov_requests())
    rows.emplace_back(request.type, request.acknowledged, request.name, request.payload_size);
  return rows;
}

TEST(TovRequests, RowsStandInTheOrderOfTheWireValues) {
  EXPECT_THAT(rows(), ElementsAre(FieldsAre(1, true, "tov_process_restart", 320u),
                                  FieldsAre(2, true, "tov_process_shell_restart", 320u),
                                  FieldsAre(3, true, "tov_notifier_start", 320u),
                                  FieldsAre(4, false, "tov_notifier_reset", 320u),
                                  FieldsAre(5, true, "tov_process_cons_msg", 8u)));
}

TEST(TovRequests, TypeFindsItsRow) {
  for (const tov_request_t &request : tov_requests())
    EXPECT_EQ(tov_request_of(request.type), &request) << request.type;
}

TEST(TovRequests, WhatIsNoRequestHasNoRow) {
  for (const int type :
       {INT_MIN, -1, static_cast<int>(TOV_NORMAL_EXIT), 6, 7, 255, 256, 257, INT_MAX})
    EXPECT_EQ(tov_request_of(type), nullptr) << type;
}

TEST(TovRequests, PayloadIsCheckedAgainstTheRow) {
  for (const tov_request_t &request : tov_requests()) {
    const int size = static_cast<int>(request.payload_size);
    EXPECT_EQ(tov_msg_check_payload(request.type, size), 0) << request.type;
    EXPECT_EQ(tov_msg_check_payload(request.type, INT_MAX), 0) << request.type;
    for (const int shorter : {size - 1, 0, -1, INT_MIN})
      EXPECT_EQ(tov_msg_check_payload(request.type, shorter), -1) << request.type << ' ' << shorter;
  }
}

TEST(TovRequests, TypeWithoutARowNeedsNoPayload) {
  for (const int type : {-1, 0, 6})
    EXPECT_EQ(tov_msg_check_payload(type, 0), 0) << type;
}

TEST(TovRequests, RegistrationsTellWhenTheirProcessHasGone) {
  char script[] = "/etc/cmdmap/none.sh";
  for (const TOV_MSG_TYPE type : {TOV_RESTART, TOV_SHELL_RESTART, TOV_MSG_ACK, TOV_RESET}) {
    auto payload = gone_process();
    EXPECT_EQ(tov_request_of(type)->handle(script, &payload), -1) << type;
  }
}

// ---- control events -----------------------------------------------------------------------------

class TovControlEvents : public testing::Test, protected tov_test::Registries {
 protected:
  TovControlEvents() {
    init_registries();
    add(TOO_HIGH_FOR_A_SLOT, "/opt/a");
    add(TOO_HIGH_FOR_A_SLOT, "/opt/a", 0, 0, tov_alive_chains);
  }
  ~TovControlEvents() override { empty_registries(); }

  static void carry_out(int event) {
    tov_msg_cons_t payload = {.event = event, .pid = TOO_HIGH_FOR_A_SLOT};
    EXPECT_EQ(tov_request_of(TOV_MSG_CONS)->handle(nullptr, &payload), 0);
  }
};

TEST_F(TovControlEvents, ThreadIsNoLongerWatched) {
  carry_out(TOV_UNREG_THREAD_NOTIFY);
  EXPECT_EQ(count(tov_alive_chains), 0);
  EXPECT_EQ(count(tov_chains), 1);
}

TEST_F(TovControlEvents, UnknownEventChangesNothing) {
  for (const int event : {-1, 2, INT_MIN, INT_MAX})
    carry_out(event);
  EXPECT_EQ(count(tov_alive_chains), 1);
  EXPECT_EQ(count(tov_chains), 1);
}

}  // namespace
