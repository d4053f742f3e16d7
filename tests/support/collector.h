// Drains the device's console and its system log, so that no writer there ever waits or drops.
#ifndef TOV_TEST_COLLECTOR_H
#define TOV_TEST_COLLECTOR_H

#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "util/owner.h"

namespace tov_test {

// One datagram that a program of the device sent to /dev/log.
struct Notice {
  int64_t time_ms;   // CLOCK_MONOTONIC at its arrival
  std::string text;  // whole, with priority, date and tag; without its final line feeds
};

// Owns the two descriptors and one thread. The accessors may be called from any thread and return
// copies. They take in first what has arrived: who saw what a program did after it spoke also finds
// what it said.
class Collector {
 public:
  // log      a bound datagram socket
  // console  the master side of a pty, or -1
  Collector(tov_fd_t log, tov_fd_t console);
  Collector(const Collector &) = delete;
  Collector &operator=(const Collector &) = delete;
  // Takes in what has arrived so far and ends the thread.
  ~Collector() { stop(); }

  void stop();
  std::vector<Notice> notices();
  std::string console();

 private:
  void run();
  bool read_log();
  bool read_console();

  tov_fd_t log_;
  tov_fd_t console_;
  tov_fd_t wake_;
  std::mutex mutex_;  // guards the two below and the order of what is read
  std::vector<Notice> notices_;
  std::string console_text_;
  std::thread thread_;
};

}  // namespace tov_test

#endif  // TOV_TEST_COLLECTOR_H
