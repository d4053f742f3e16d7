// The kernel's own connector: that it numbers every event, which socket an event comes over, what a
// subscription is answered with, and what is said of an overflow. The reader rests on it.
#include "core/events/connector.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <linux/cn_proc.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/events/numbers.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/children.h"

namespace {

struct event_s {
  uint32_t what;
  uint32_t processor;
  uint32_t number;
  int pid;   // of an exit
  int tgid;  // of an exit
  uint32_t code;
  uint64_t at_ns;
};

class TovConnector : public tov_test::World {
 protected:
  TovConnector() { EXPECT_EQ(tov_connector_open(&connector_), 0); }

  // All that a socket holds now.
  static std::vector<event_s> read_all(int sock, int *overflows = nullptr) {
    std::vector<event_s> all;
    for (int res = 0; res != -EAGAIN;) {
      res = tov_connector_receive(sock, MSG_DONTWAIT, [&](const cn_msg *message) {
        proc_event event{};
        memcpy(&event, message->data, std::min<size_t>(message->len, sizeof event));
        const auto &exit = event.event_data.exit;
        all.push_back({static_cast<uint32_t>(event.what), event.cpu, message->seq, exit.process_pid,
                       exit.process_tgid, exit.exit_code, event.timestamp_ns});
      });
      if (res == -ENOBUFS && overflows != nullptr) ++*overflows;
    }
    return all;
  }
  std::vector<event_s> read_first(int *overflows = nullptr) {
    return read_all(connector_.events.n, overflows);
  }
  std::vector<event_s> read_second() { return read_all(connector_.others.n); }

  tov_connector_t connector_;
};

// Forks processes that end at once, with a thread each.
void make_processes(int count) {
  for (int i = 0; i < count; i++) {
    const pid_t child = fork();
    if (child == 0) {
      pthread_t thread;
      (void)pthread_create(
          &thread, nullptr, [](void *) -> void * { return nullptr; }, nullptr);
      (void)pthread_join(thread, nullptr);
      _exit(3);
    }
    waitpid(child, nullptr, 0);
  }
}

bool is_of_interest(const event_s &event) {
  return event.what == proc_event::PROC_EVENT_EXEC || event.what == proc_event::PROC_EVENT_EXIT ||
         event.what == proc_event::PROC_EVENT_NONE;
}

}  // namespace

TEST_F(TovConnector, SubscriptionIsAnsweredOverTheFirstSocket) {
  const std::vector<event_s> first = read_first();
  EXPECT_TRUE(std::any_of(first.begin(), first.end(), [](const event_s &event) {
    return event.what == proc_event::PROC_EVENT_NONE;
  }));
}

TEST_F(TovConnector, EachEventComesOverOneSocketAndNoNumberIsMissing) {
  ASSERT_GE(connector_.others.n, 0);
  EXPECT_TRUE(connector_.is_complete);
  (void)read_first();
  (void)read_second();
  make_processes(1000);
  (void)prctl(PR_SET_NAME, "renamed", 0, 0, 0);
  // The second after the first: whatever lies below a number of the first is in one of them.
  const std::vector<event_s> first = read_first(), second = read_second();
  EXPECT_TRUE(std::all_of(first.begin(), first.end(), is_of_interest));
  EXPECT_TRUE(std::none_of(second.begin(), second.end(), is_of_interest));
  EXPECT_GE(first.size(), 2000u);   // ends of processes and of their threads
  EXPECT_GE(second.size(), 2000u);  // their beginnings
  tov_numbers_t numbers;
  std::map<uint32_t, uint32_t> lowest;  // of both: where the numbers begin
  for (const auto *events : {&first, &second})
    for (const event_s &event : *events) {
      const auto [at, is_new] = lowest.emplace(event.processor, event.number);
      if (static_cast<int32_t>(event.number - at->second) < 0) at->second = event.number;
    }
  for (const auto &[processor, number] : lowest)
    numbers.seen(processor, number);
  for (const event_s &event : first)
    numbers.seen(event.processor, event.number);
  numbers.mark();
  for (const event_s &event : second)
    numbers.seen(event.processor, event.number);
  EXPECT_EQ(numbers.lost(), 0u);
}

TEST_F(TovConnector, NumbersOfASocketRiseForEachProcessor) {
  make_processes(100);
  for (const auto &events : {read_first(), read_second()}) {
    std::map<uint32_t, uint32_t> last;
    for (const event_s &event : events) {
      const auto [at, is_first] = last.emplace(event.processor, event.number);
      if (!is_first) {
        EXPECT_GT(static_cast<int32_t>(event.number - at->second), 0);
      }
      at->second = event.number;
    }
  }
}

TEST_F(TovConnector, EventHasTheMonotonicTime) {
  (void)read_first();
  timespec before{}, after{};
  clock_gettime(CLOCK_MONOTONIC, &before);
  make_processes(1);
  clock_gettime(CLOCK_MONOTONIC, &after);
  for (const event_s &event : read_first()) {
    if (event.code != 3 << 8) continue;
    EXPECT_GE(event.at_ns, static_cast<uint64_t>(before.tv_sec) * 1'000'000'000);
    EXPECT_LE(event.at_ns, static_cast<uint64_t>(after.tv_sec + 1) * 1'000'000'000);
  }
}

TEST_F(TovConnector, ProcessIsDeadInProcWhenItsEndIsTold) {
  make_processes(20);
  int ends = 0;
  const pid_t child = fork();
  if (child == 0) _exit(5);
  while (ends == 0) {
    for (const event_s &event : read_first()) {
      if (event.pid != child || event.what != proc_event::PROC_EVENT_EXIT) continue;
      ends++;
      char state = 0;
      const std::string path = "/proc/" + std::to_string(child) + "/stat";
      if (FILE *stat = fopen(path.c_str(), "re")) {
        EXPECT_EQ(fscanf(stat, "%*d (%*[^)]) %c", &state), 1);
        (void)fclose(stat);
      }
      EXPECT_EQ(state, 'Z');
    }
  }
  waitpid(child, nullptr, 0);
}

TEST_F(TovConnector, OverflowIsSaidOnceAndItsDropsAreCounted) {
  (void)read_first();
  int bytes = 1;  // the kernel's least, some datagrams
  ASSERT_EQ(setsockopt(connector_.events.n, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes), 0);
  const std::optional<uint32_t> before = tov_connector_drops(connector_.events.n);
  ASSERT_TRUE(before);
  make_processes(100);
  int overflows = 0;
  const size_t got = read_first(&overflows).size();
  const std::optional<uint32_t> after = tov_connector_drops(connector_.events.n);
  ASSERT_TRUE(after);
  EXPECT_EQ(overflows, 1);
  EXPECT_GE(got + *after - *before, 200u);
  EXPECT_GT(*after - *before, 0u);
  make_processes(1);
  EXPECT_FALSE(read_first(&overflows).empty()) << "read empty, it goes on";
}

TEST_F(TovConnector, DropsOfWhatIsNoSocketAreUnknown) {
  EXPECT_EQ(tov_connector_drops(-1), std::nullopt);
}

// ---- executions -----------------------------------------------------------------------------

static int count_executions(const std::vector<event_s> &events) {
  return static_cast<int>(std::count_if(events.begin(), events.end(), [](const event_s &event) {
    return event.what == proc_event::PROC_EVENT_EXEC;
  }));
}

TEST_F(TovConnector, ExecutionsComeOverTheSocketThatIsToHaveThem) {
  ASSERT_GE(connector_.others.n, 0);
  for (const bool hears : {true, false, false, true}) {
    SCOPED_TRACE(hears);
    tov_connector_hear_executions(&connector_, hears);
    EXPECT_EQ(connector_.hears_executions, hears);
    (void)read_first();
    (void)read_second();
    tov_test::end_child(tov_test::start("/bin/true"));
    make_processes(1);
    std::vector<event_s> first = read_first(), second = read_second();
    EXPECT_GE(count_executions(hears ? first : second), 1);
    EXPECT_EQ(count_executions(hears ? second : first), 0);
    EXPECT_TRUE(std::any_of(first.begin(), first.end(), [](const event_s &event) {
      return event.what == proc_event::PROC_EVENT_EXIT;
    })) << "ends as always";
    tov_numbers_t numbers;
    first.insert(first.end(), second.begin(), second.end());
    std::sort(first.begin(), first.end(),
              [](const event_s &a, const event_s &b) { return a.at_ns < b.at_ns; });
    for (const event_s &event : first)
      numbers.seen(event.processor, event.number);
    numbers.mark();
    EXPECT_EQ(numbers.lost(), 0u);
  }
}

TEST_F(TovConnector, WithOneSocketExecutionsStayWhereTheyAre) {
  connector_.others.reset();
  tov_connector_hear_executions(&connector_, false);
  EXPECT_TRUE(connector_.hears_executions);
  (void)read_first();
  tov_test::end_child(tov_test::start("/bin/true"));
  EXPECT_GE(count_executions(read_first()), 1);
}

// ---- many at once ---------------------------------------------------------------------------

TEST_F(TovConnector, ManyDatagramsComeWithOneCall) {
  (void)read_first();
  make_processes(tov_datagrams_t::AT_ONCE);
  tov_datagrams_t datagrams;
  int messages = 0;
  const auto count = [&](const cn_msg *) { messages++; };
  int received = datagrams.receive(connector_.events.n, MSG_DONTWAIT, count);
  EXPECT_EQ(received, int{tov_datagrams_t::AT_ONCE});
  EXPECT_EQ(messages, received);
  while (received == int{tov_datagrams_t::AT_ONCE})
    received = datagrams.receive(connector_.events.n, MSG_DONTWAIT, count);
  EXPECT_GE(messages, 2 * int{tov_datagrams_t::AT_ONCE}) << "a thread and a process each";
  while (received >= 0)
    received = datagrams.receive(connector_.events.n, MSG_DONTWAIT, count);
  EXPECT_EQ(received, -EAGAIN);
}
