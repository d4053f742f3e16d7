// What the tests of the registration socket share: a daemon, clients that say what they like, and
// what the daemon holds meanwhile.
#ifndef TOV_TEST_RAW_CLIENTS_H
#define TOV_TEST_RAW_CLIENTS_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

namespace tov_test {

inline constexpr char SOCKET[] = "/tmp/tov/.tov";
inline constexpr Millis CLIENT_LIMIT_MS{30'000};

// A request that changes nothing.
inline std::string harmless() {
  return packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{.event = 99, .pid = 0}));
}

inline Millis patient_limit() {
  return CLIENT_LIMIT_MS * patience();
}

class RawClients : public testing::Test {
 protected:
  RawClients() {
    // Both ends of a connection count, and the daemon's are not ours.
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
  }

  void start(const DaemonOptions &options = {}) {
    daemon_ = device.start_ready_daemon(options);
    // The socket is there before the daemon listens on it.
    ASSERT_TRUE(wait_until([&] { return RawClient().connect(socket()) == 0; }, CLIENT_LIMIT_MS));
    ASSERT_TRUE(is_served());
    descriptors_ = descriptors();
  }
  std::string socket() const { return device.path(SOCKET); }
  std::unique_ptr<RawClient> connected() const {
    auto client = std::make_unique<RawClient>();
    if (const int error = client->connect(socket()); error != 0)
      throw std::runtime_error(std::string("no connection: ") + strerror(error) + "\n" +
                               device.dump());
    return client;
  }
  static bool is_served(RawClient &client) {
    return client.send(harmless()) && client.answer(patient_limit()) == RawClient::ACKNOWLEDGED;
  }
  // A good client that comes now.
  bool is_served() const { return is_served(*connected()); }
  RawClient::Answer answer_to(const std::string &bytes) const {
    const auto client = connected();
    return client->send(bytes) ? client->answer(patient_limit()) : RawClient::CLOSED;
  }
  // Of some good clients with a connection each.
  double median_round_trip_us() const {
    std::vector<int64_t> times;
    for (int i = 0; i < 25; i++) {
      const int64_t begin = monotonic_ns();
      EXPECT_TRUE(is_served());
      times.push_back(monotonic_ns() - begin);
    }
    std::sort(times.begin(), times.end());
    return static_cast<double>(times[times.size() / 2]) / 1'000;
  }

  size_t descriptors() const { return descriptors_of(daemon_); }
  // Everything that it had for its clients is given back, once it has seen them go. Its other
  // threads open this and that meanwhile, but far less than there were clients.
  void expect_descriptors_back() const {
    static constexpr size_t OTHERS = 16;
    EXPECT_TRUE(wait_until([&] { return descriptors() <= descriptors_ + OTHERS; }, CLIENT_LIMIT_MS))
        << descriptors() << " instead of " << descriptors_;
  }
  long resident_kb() const { return static_cast<long>(tov_test::resident_kb(daemon_)); }
  // A sanitizer's own memory, which grows with every freed block, says nothing.
  void expect_memory_within([[maybe_unused]] long before_kb, [[maybe_unused]] long more_kb) const {
#if !defined(TOV_SANITIZE_ADDRESS) && !defined(TOV_SANITIZE_THREAD)
    EXPECT_LE(resident_kb(), before_kb + more_kb);
#endif
  }
  // Nothing was registered, and nothing went wrong in the daemon itself.
  void expect_untouched() const {
    EXPECT_THAT(event_texts(device, REGISTER_LOG), testing::IsEmpty());
    EXPECT_THAT(event_texts(device, ALIVE_LOG), testing::IsEmpty());
    EXPECT_THAT(event_texts(device, ERROR_LOG), testing::IsEmpty());
    EXPECT_TRUE(process_lives(daemon_));
  }

  Device device;
  pid_t daemon_ = 0;
  size_t descriptors_ = 0;
};

inline void expect_clean_end(Device &device) {
  const auto status = device.wait_daemon(CLIENT_LIMIT_MS);
  ASSERT_TRUE(status) << device.dump();
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
}

}  // namespace tov_test

#endif  // TOV_TEST_RAW_CLIENTS_H
