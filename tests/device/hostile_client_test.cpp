// The registration socket is open to everybody. Whatever a client sends or does not do, it costs
// that client its connection and no other client anything: the shipped daemon goes on serving, with
// the memory and the descriptors that it had before.
#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/raw_clients.h"
#include "tests/device/story.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

using namespace tov_test;
using testing::AnyOf;
using testing::Contains;

namespace {

using HostileClient = RawClients;

tov_msg_xtach_t record_of(pid_t pid) {
  tov_msg_xtach_t record{};
  record.pid = pid;
  snprintf(record.pathname, sizeof record.pathname, "/hostile/client");
  return record;
}

// ---- bad packets --------------------------------------------------------------------------------

struct Refused {
  const char *label;
  std::string bytes;
  const char *diagnostic;
};

std::vector<Refused> refused_packets() {
  const std::string record = bytes_of(record_of(getpid()));
  return {
      {"nothing at all", "", "tov_inner_recv_msg: recv peek err(ret:0, err:0,"},
      {"one byte", "x", "recv peek err(ret:1, err:0,"},
      {"a head but for one byte", packet(TOV_RESTART, 0, "").substr(0, 267), "(ret:267, err:0,"},
      {"length -1", packet(TOV_RESTART, -1, record), "recv domain msg with len=-1\r\n"},
      {"lowest length", packet(TOV_RESTART, INT_MIN, record), "with len=-2147483648\r\n"},
      {"length that wraps with the head", packet(TOV_RESTART, INT_MIN + 268, record),
       "recv domain msg with len=-2147483380\r\n"},
      {"one byte too few", packet(TOV_RESTART, 321, record), "recv err(ret:588, err:0,"},
      {"payload missing", packet(TOV_MSG_CONS, 8, ""), "recv err(ret:268, err:0,"},
      {"highest length", packet(TOV_RESTART, INT_MAX, record), "recv err(ret:588, err:0,"},
      {"highest length that fits with the head", packet(TOV_RESTART, INT_MAX - 268, record),
       "recv err(ret:588, err:0,"},
      {"type 0", packet(0, record), "recv unknown type msg 0\n"},
      {"type 6", packet(6, record), "recv unknown type msg 6\n"},
      {"highest type", packet(UINT32_MAX, record), "recv unknown type msg -1\n"},
  };
}

TEST_F(HostileClient, PacketThatIsRefusedCostsItsSenderAlone) {
  start({.env = with_diagnostics(device)});
  const auto bystander = connected();
  for (const Refused &row : refused_packets()) {
    EXPECT_EQ(answer_to(row.bytes), RawClient::CLOSED) << row.label;
    EXPECT_TRUE(is_served(*bystander)) << "after " << row.label;
    EXPECT_TRUE(device.wait_output(row.diagnostic, STORY_LIMIT_MS)) << row.label;
  }
  expect_untouched();
}

struct Served {
  const char *label;
  std::string bytes;
  const char *diagnostic;
};

std::vector<Served> served_packets() {
  const std::string record = bytes_of(record_of(0));  // no process has that id: nothing comes of it
  static constexpr char SHORT[] = ": payload too short(type:";
  return {
      {"restart without a record", packet(TOV_RESTART, ""), SHORT},
      {"restart with a byte too few", packet(TOV_RESTART, record.substr(0, 319)),
       "tov_process_restart: payload too short(type:1, len:319)!\n"},
      {"script with four bytes", packet(TOV_SHELL_RESTART, record.substr(0, 4)),
       "tov_process_shell_restart: payload too short(type:2, len:4)!\n"},
      {"thread with a control record", packet(TOV_MSG_ACK, record.substr(0, 8)),
       "tov_notifier_start: payload too short(type:3, len:8)!\n"},
      {"half a control record", packet(TOV_MSG_CONS, "1234"),
       "tov_process_cons_msg: payload too short(type:5, len:4)!\n"},
      {"unknown event 2", packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{2, 1})),
       "tov_dispatch_domain_msg type:5 err:0\n"},
      {"unknown event -1", packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{-1, 1})), ""},
      {"removal of nobody", packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{0, -1})), ""},
      {"removal of everybody's thread", packet(TOV_MSG_CONS, bytes_of(tov_msg_cons_t{1, INT_MIN})),
       ""},
      {"more than the head says", packet(TOV_MSG_CONS, 8, std::string(9000, '\xff')), ""},
      {"as long as a packet can be", packet(TOV_MSG_CONS, std::string(150'000, '\xff')), ""},
      {"text without an end in the path",
       packet(TOV_MSG_CONS, std::string(8, '\xff'), std::string(256, 'p')), ""},
  };
}

TEST_F(HostileClient, PacketOfAKnownTypeIsAcknowledgedWhateverItBrings) {
  start({.env = with_diagnostics(device)});
  const auto bystander = connected();
  const auto client = connected();
  for (const Served &row : served_packets()) {
    ASSERT_TRUE(client->send(row.bytes)) << row.label;
    EXPECT_EQ(client->answer(patient_limit()), RawClient::ACKNOWLEDGED) << row.label;
    EXPECT_TRUE(is_served(*client)) << "the connection stays after " << row.label;
    EXPECT_TRUE(is_served(*bystander)) << "after " << row.label;
    EXPECT_TRUE(device.wait_output(row.diagnostic, STORY_LIMIT_MS)) << row.label;
  }
  // Its answer would come before the next request's.
  ASSERT_TRUE(client->send(packet(TOV_RESET, "short")));
  EXPECT_TRUE(is_served(*client));
  EXPECT_TRUE(device.wait_output("tov_notifier_reset: payload too short(type:4, len:5)!\n"));
  EXPECT_EQ(client->answer(Millis(0)), RawClient::SILENCE) << "one answer, not two";
  expect_untouched();
}

TEST_F(HostileClient, TextsWithoutAnEndAreCutAtTheirFields) {
  start();
  Task task = start_task(device, "unterminated", {.registered = false});
  auto record = record_of(task.pid);
  memset(record.pathname, 'p', sizeof record.pathname);
  memset(record.grp, 'g', sizeof record.grp);
  EXPECT_EQ(answer_to(packet(TOV_SHELL_RESTART, bytes_of(record), std::string(256, 's'))),
            RawClient::ACKNOWLEDGED);
  // The line holds less than the field; nothing of the label behind it is shown.
  need_event(device, REGISTER_LOG, "register - process:ppp");
  const std::string line = event_texts(device, REGISTER_LOG)[0];
  EXPECT_EQ(line.find_first_not_of('p', strlen("register - process:")), std::string::npos) << line;
  EXPECT_TRUE(is_served());
}

TEST_F(HostileClient, TextsAreNoFormats) {
  start();
  Task task = start_task(device, "formats", {.registered = false});
  auto record = record_of(task.pid);
  snprintf(record.pathname, sizeof record.pathname, "%s", "/opt/%n%s%s%s%1000000d");
  EXPECT_EQ(answer_to(packet(TOV_SHELL_RESTART, bytes_of(record), "%n%n%s")),
            RawClient::ACKNOWLEDGED);
  need_event(device, REGISTER_LOG, "register - process:/opt/%n%s%s%s%1000000d pid:");
  EXPECT_TRUE(is_served());
}

// ---- clients that do not what they should -----------------------------------------------------

TEST_F(HostileClient, SilenceDelaysNoOtherClient) {
  start();
  std::vector<std::unique_ptr<RawClient>> silent;
  silent.reserve(100);
  for (int i = 0; i < 100; i++)
    silent.push_back(connected());
  for (int i = 0; i < 20; i++)
    ASSERT_TRUE(is_served());
  for (const auto &client : silent) {
    EXPECT_EQ(client->answer(Millis(0)), RawClient::SILENCE) << "they are left in peace";
    EXPECT_TRUE(is_served(*client)) << "and served as soon as they speak";
  }
  silent.clear();
  expect_descriptors_back();
  expect_untouched();
}

TEST_F(HostileClient, WhoNeverReadsItsAnswersIsDropped) {
  static constexpr int MOST = 100'000;
  start();
  const auto bystander = connected();
  const auto deaf = connected();
  int sent = 0;
  while (sent < MOST && deaf->send(harmless()))
    sent++;
  EXPECT_LT(sent, MOST) << "it is hung up on once its queue is full";
  EXPECT_TRUE(is_served(*bystander));
  // What had been acknowledged before lies there for it; then comes the end.
  int answers = 0;
  RawClient::Answer answer;
  while ((answer = deaf->answer(patient_limit())) == RawClient::ACKNOWLEDGED)
    answers++;
  EXPECT_EQ(answer, RawClient::CLOSED);
  EXPECT_GT(answers, 0);
  EXPECT_LE(answers, sent);
  EXPECT_TRUE(is_served(*bystander));
  expect_untouched();
}

TEST_F(HostileClient, DeathInTheMiddleHarmsNoOtherClient) {
  static constexpr int DEATHS = 90;
  start();
  const auto bystander = connected();
  // Dead with nothing, a half or a whole request on its way.
  const std::string requests[] = {"", harmless().substr(0, 100), harmless()};
  for (int i = 0; i < DEATHS; i++) {
    const std::string &request = requests[i % 3];
    const int status = device.call_inside([&request] {
      RawClient client;
      if (client.connect() != 0) return 1;
      if (!request.empty() && !client.send(request)) return 2;
      ::kill(getpid(), SIGKILL);
      return 3;
    });
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
  }
  EXPECT_TRUE(is_served(*bystander));
  EXPECT_TRUE(is_served());
  expect_descriptors_back();
  expect_untouched();
}

// ---- noise --------------------------------------------------------------------------------------

// TOV_TEST_PACKETS asks for another number, such as a million.
int packets_asked() {
  const char *asked = getenv("TOV_TEST_PACKETS");
  return asked != nullptr ? atoi(asked) : 20'000 / (patience() * patience());
}

TEST_F(HostileClient, RandomPacketsCostNoMemoryAndNoOtherClient) {
  start();
  std::mt19937 random(20261122);
  auto client = connected();
  size_t connections = 1;
  const auto noise = [&](int count) {
    for (int i = 0; i < count; i++) {
      if (client->send(random_packet(random), MSG_DONTWAIT)) {
        if (i % 64 == 0) client->answer(Millis(0));
        continue;
      }
      client = connected();
      connections++;
    }
  };
  noise(2'000 / patience());
  ASSERT_TRUE(is_served());
  const long before_kb = resident_kb();
  const double before_us = median_round_trip_us();
  const int packets = packets_asked();
  for (int left = packets; left > 0; left -= 1'000) {
    noise(std::min(left, 1'000));
    ASSERT_TRUE(is_served()) << left << " packets before the end";
  }
  std::cout << packets << " packets on " << connections << " connections; resident " << before_kb
            << " KiB before, " << resident_kb() << " KiB after; good client " << before_us
            << " us before, " << median_round_trip_us() << " us after\n";
  expect_memory_within(before_kb, 2'048);
  client.reset();
  expect_descriptors_back();
  EXPECT_TRUE(process_lives(daemon_));
}

// ---- what does end the daemon -------------------------------------------------------------------

TEST_F(HostileClient, WantOfDescriptorsEndsTheDaemonAndTheNextOneSupervisesOn) {
  Task task = start_task(device, "beside_want");
  start();
  // As if something else held them. Whether a client or the set of clients is the one too many
  // depends on what the other threads have open at that moment.
  const rlimit none_left = {descriptors_, 20'000};
  ASSERT_EQ(prlimit(daemon_, RLIMIT_NOFILE, &none_left, nullptr), 0) << strerror(errno);
  static constexpr char END[] = "Thread \"tov_process_domain\" exit, tov will be restart. res=";
  std::vector<std::unique_ptr<RawClient>> clients;
  const auto ended = [&] { return device.count_events(ERROR_LOG, END) > 0; };
  ASSERT_TRUE(wait_until(
      [&] {
        clients.push_back(std::make_unique<RawClient>());
        (void)clients.back()->connect(socket());  // refused as soon as it is gone
        return ended();
      },
      CLIENT_LIMIT_MS));
  const auto lines = event_texts(device, ERROR_LOG);
  EXPECT_THAT(lines, Contains(AnyOf(std::string(END) + "-8, Too many open files(24)",
                                    std::string(END) + "-4, Too many open files(24)")));
  expect_clean_end(device);
  clients.clear();

  start();
  kill_and_return(device, task);
}

}  // namespace
