// The platform of a pure test, the server of the daemon and the system semaphore: they do nothing
// and note what they are asked for.
#ifndef TOV_TEST_UNIT_SIM_PLATFORM_H
#define TOV_TEST_UNIT_SIM_PLATFORM_H

#include <string>
#include <vector>

#include "include/tov_registry.h"

namespace tov_test {

struct platform_s {
  std::vector<std::string> notices;                   // "%HA-5-HA_RESTART: TEXT"
  std::vector<std::string> events[TOV_LOG_TYPE_NUM];  // of the event logs, without their stamps
  std::vector<std::string> requests;                  // "ACTION PID MODULE: REASON"
  std::vector<std::string> registered;                // "PID TYPE", with our own server
  std::vector<std::string> registered_as;             // the command lines of those
  int flushes = 0;                                    // of event logs to storage
  bool is_dorvik = false;                             // the product line
  int semaphore = 0;                                  // that holds the watchdog's countdown back
};

platform_s &platform();

// Forgets all that was noted, and opens the event logs.
void reset_platform();

}  // namespace tov_test

#endif  // TOV_TEST_UNIT_SIM_PLATFORM_H
