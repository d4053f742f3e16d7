// Stands in for the self-healing service: a program that notes what it is asked for. Only inside a
// private root.
#ifndef TOV_TEST_MODULE_SELF_HEALING_H
#define TOV_TEST_MODULE_SELF_HEALING_H

#include <stddef.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/processes.h"

namespace tov_test {

// In how many of these notices the platform says that it was asked for a reload of the unit.
inline size_t reloads_in(const std::vector<std::string> &notices) {
  return static_cast<size_t>(
      std::count_if(notices.begin(), notices.end(), [](const std::string &text) {
        return text.starts_with("self-healing action 3, process 0, asked by tov: ");
      }));
}

class SelfHealing {
 public:
  SelfHealing() {
    clear_path(NOTES);
    write_file(HOOK, std::string("#!/bin/sh\nprintf '[%s]' \"$@\" >>") + NOTES + "\necho END >>" +
                         NOTES + "\n");
    chmod(HOOK, 0755);
  }
  ~SelfHealing() { clear_path(HOOK); }
  SelfHealing(const SelfHealing &) = delete;
  SelfHealing &operator=(const SelfHealing &) = delete;

  // The first request as "[ACTION][PID][MODULE][REASON]".
  std::string request() const {
    wait_until([] { return read_file(NOTES).ends_with("END\n"); }, PATIENT_MS);
    const std::string notes = read_file(NOTES);
    return notes.substr(0, notes.find("END\n"));
  }

 private:
  static constexpr char HOOK[] = "/etc/tov/selfhealing";
  static constexpr char NOTES[] = "/data/selfhealing.notes";
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_SELF_HEALING_H
