// The dumps of the registries: what they show, and that no other thread waits for their reader.
#include "core/registry/dump.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <string>
#include <thread>

#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/world.h"
#include "tests/support/processes.h"
#include "tests/support/stdout.h"

using namespace std::chrono_literals;
using tov_test::printed_by;

namespace {

class TovMsg : public tov_test::World {
 protected:
  // Puts a record straight into a registry.
  static void insert(tov_chains_t &chains, pid_t pid, const char *process, const char *path = "") {
    tov_pid_t *record = add(pid, process, RESPAWN, 0, chains);
    (void)snprintf(record->pathname, sizeof record->pathname, "%s", path);
  }
};

TEST_F(TovMsg, ConsoleDumpShowsHeadingCountAndRecordsInBucketOrder) {
  insert(tov_chains, 9, "/opt/second", "/etc/cmdmap/x");
  insert(tov_chains, 9, "/opt/first");
  const std::string said = printed_by([&] { tov_cli_dump_process_msg_console(0, &tov_chains); });
  EXPECT_EQ(said,
            "register restart in tov:\n"
            "node num:2\n"
            "pid: 9     , vsd: 0 , regact: 2, pname: /opt/first, \n"
            "pid: 9     , vsd: 0 , regact: 2, pname: /opt/second, /etc/cmdmap/x\n");
  EXPECT_EQ(pthread_mutex_trylock(&tov_chains.lock), 0) << "the lock is released";
  pthread_mutex_unlock(&tov_chains.lock);
}

TEST_F(TovMsg, EveryKindHasItsHeading) {
  static constexpr const char *headings[] = {"register restart in tov:\n",
                                             "register hang in tov:\n", "delay restart in tov:\n"};
  for (int kind = 0; kind < 3; kind++) {
    const std::string said = printed_by(
        [&] { tov_cli_dump_process_msg_console(kind, registries()[static_cast<size_t>(kind)]); });
    EXPECT_EQ(said, std::string(headings[kind]) + "node num:0\n");
  }
  const std::string said = printed_by([&] {
    tov_cli_dump_process_msg_console(3, &tov_chains);
    tov_cli_dump_process_msg_console(-1, &tov_chains);
  });
  EXPECT_EQ(said, "node num:0\nnode num:0\n");
}

TEST_F(TovMsg, SyslogDumpIsOneMessageForEachLine) {
  insert(tov_chains_delay, 1234567, "/opt/with\na line feed", "%s%n");
  tov_cli_dump_process_msg_syslog(2, &tov_chains_delay);
  const auto first = listener().next();
  ASSERT_TRUE(first.has_value());
  EXPECT_TRUE(first->starts_with("<30>")) << "daemon.info: " << *first;
  EXPECT_NE(first->find("delay restart in tov:"), std::string::npos);
  EXPECT_TRUE(listener().next_text().starts_with("node num:1"));
  EXPECT_TRUE(listener().next_text().starts_with(
      "pid: 1234567, vsd: 0 , regact: 2, pname: /opt/with\na line feed, %s%n"));
  EXPECT_FALSE(listener().next().has_value());
}

TEST_F(TovMsg, LongestRecordIsDumpedWhole) {
  const std::string process(4095, 'p');
  const std::string path(255, 'q');
  insert(tov_chains, 1, process.c_str(), path.c_str());
  const std::string said = printed_by([&] { tov_cli_dump_process_msg_console(0, &tov_chains); });
  EXPECT_NE(said.find("pname: " + process + ", " + path + "\n"), std::string::npos);
}

TEST_F(TovMsg, StuckConsoleDoesNotHoldTheRegistry) {
  for (pid_t pid = 1; pid < 200; pid++)
    insert(tov_chains, pid, std::string(1000, 'x').c_str());
  int pipe_ends[2];
  ASSERT_EQ(pipe(pipe_ends), 0);
  fflush(stdout);
  const int console = dup(STDOUT_FILENO);
  dup2(pipe_ends[1], STDOUT_FILENO);
  close(pipe_ends[1]);
  std::thread dumper([] { tov_cli_dump_process_msg_console(0, &tov_chains); });
  // The pipe holds 64 KiB of some 200: once it is full, the dump is stuck until the pipe is read.
  const bool stuck = tov_test::wait_until(
      [&] {
        int held = 0;
        return ioctl(pipe_ends[0], FIONREAD, &held) == 0 &&
               held > fcntl(pipe_ends[0], F_GETPIPE_SZ) - PIPE_BUF;
      },
      20s);
  const bool free_meanwhile = tov_test::wait_until(
      [] {
        const bool free = pthread_mutex_trylock(&tov_chains.lock) == 0;
        if (free) pthread_mutex_unlock(&tov_chains.lock);
        return free;
      },
      20s);
  static constexpr size_t ALL = 199 * 1000;
  size_t total = 0;
  char buf[65536];
  while (total < ALL) {
    const ssize_t count = read(pipe_ends[0], buf, sizeof buf);
    if (count <= 0) break;
    total += static_cast<size_t>(count);
  }
  std::thread drain([&] {
    while (read(pipe_ends[0], buf, sizeof buf) > 0)
      continue;
  });
  dumper.join();
  fflush(stdout);
  dup2(console, STDOUT_FILENO);
  close(console);
  drain.join();
  close(pipe_ends[0]);
  EXPECT_TRUE(stuck);
  EXPECT_TRUE(free_meanwhile);
  EXPECT_GE(total, ALL);
}

}  // namespace
