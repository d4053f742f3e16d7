// The registration server, run as a thread of the test. Only inside a private root.
#ifndef TOV_TEST_MODULE_SERVER_THREAD_H
#define TOV_TEST_MODULE_SERVER_THREAD_H

#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "core/run/flags.h"
#include "core/server/server.h"
#include "include/tov_ras_comp_config.h"
#include "tests/support/processes.h"
#include "tests/support/raw_client.h"

namespace tov_test {

class ServerThread {
 public:
  ServerThread() {
    mkdir(TOV_RUN_DIR, 0777);
    tov_flag_set(quit, 0);
    thread_ = std::thread([] { tov_process_domain(nullptr); });
  }
  ServerThread(const ServerThread &) = delete;
  ServerThread &operator=(const ServerThread &) = delete;
  ~ServerThread() {
    if (thread_.joinable()) stop();
  }

  // Waits until it takes connections.
  bool up() {
    return wait_until([] { return RawClient().connect() == 0; }, PATIENT_MS);
  }
  // Waits until it has ended by itself.
  void join() { thread_.join(); }

  void stop() {
    tov_flag_set(quit, 1);
    (void)RawClient().connect();  // wakes it
    thread_.join();
  }

 private:
  std::thread thread_;
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_SERVER_THREAD_H
