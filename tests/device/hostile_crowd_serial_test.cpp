// As many clients at once as the daemon takes, and one more. Alone, because the server looks at all
// of them for each request, at the highest priority.
#include <gtest/gtest.h>
#include <stddef.h>
#include <sys/resource.h>

#include <iostream>
#include <memory>
#include <vector>

#include "tests/device/raw_clients.h"
#include "tests/device/story.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

using namespace tov_test;

namespace {

class HostileCrowd : public RawClients {
 protected:
  static bool can_open(size_t clients) {
    static constexpr size_t OTHERS = 200;
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    return files.rlim_cur >= clients + OTHERS;
  }
};

TEST_F(HostileCrowd, TwoThousandAtOnceAreServedAndLeaveNothingBehind) {
  // The daemon's work grows with their square; slow builds are about other things.
  const size_t crowd = 2'000 / static_cast<size_t>(patience());
  if (!can_open(crowd)) GTEST_SKIP() << "the clients need an open file each";
  start();
  const double alone_us = median_round_trip_us();
  long warm_kb = 0;
  for (int round = 0; round < 2; round++) {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (size_t i = 0; i < crowd; i++) {
      clients.push_back(connected());
      ASSERT_TRUE(clients.back()->send(harmless()));
    }
    for (const auto &client : clients)
      ASSERT_EQ(client->answer(patient_limit()), RawClient::ACKNOWLEDGED);
    EXPECT_GE(descriptors(), crowd);
    std::cout << "good client: " << alone_us << " us alone, " << median_round_trip_us()
              << " us beside " << crowd << "\n";
    clients.clear();
    expect_descriptors_back();
    if (round == 0) warm_kb = resident_kb();
  }
  expect_memory_within(warm_kb, 512);
  std::cout << "good client: " << median_round_trip_us() << " us afterwards\n";
  expect_untouched();
}

TEST_F(HostileCrowd, OneMoreThanTheTableHoldsEndsTheDaemonAndTheNextOneSupervisesOn) {
  static constexpr size_t CLIENTS = 2'048;
#if defined(TOV_SANITIZE_THREAD)
  GTEST_SKIP() << "filling the table takes minutes here, and one thread does it all";
#endif
  if (!can_open(CLIENTS)) GTEST_SKIP() << "the clients need an open file each";
  Task task = start_task(device, "beside_crowd");
  start();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (size_t i = 0; i < CLIENTS; i++)
    clients.push_back(connected());
  EXPECT_TRUE(is_served(*clients.front()));
  EXPECT_TRUE(is_served(*clients.back())) << "so many are served";
  ASSERT_EQ(event_texts(device, ERROR_LOG), std::vector<std::string>{});
  RawClient one_more;
  EXPECT_EQ(one_more.connect(socket()), 0);
  need_event(device, ERROR_LOG, "Thread \"tov_process_domain\" exit, tov will be restart. res=-9, ",
             1, CLIENT_LIMIT_MS);
  expect_clean_end(device);
  EXPECT_EQ(clients.front()->answer(patient_limit()), RawClient::CLOSED);
  clients.clear();

  start();
  kill_and_return(device, task);
}

}  // namespace
