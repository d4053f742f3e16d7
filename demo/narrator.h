// Tells what happens in the device: what the demonstration does, and what the daemon says to it.
//
// One line each, in three columns: seconds since the beginning, who speaks, the text. Besides the
// demonstration these are the daemon's notices (system log), its event logs under the name of the
// log, and the device's console, on which restarted programs print. Lines are put in the order of
// their own time stamps; the ones of the console have none and count from when they were seen.
//
// Left out: lines of the restart log that repeat a notice word for word.
// One thread, the device's. Colours only when standard output is a terminal.
#ifndef TOV_DEMO_NARRATOR_H
#define TOV_DEMO_NARRATOR_H

#include <stddef.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/processes.h"

namespace tov_demo {

class Narrator {
 public:
  explicit Narrator(const tov_test::Device &device);

  // A heading, and a sentence about what follows.
  void scene(const std::string &title, const std::string &explanation = "");
  void act(const std::string &text);  // what the demonstration does now
  void result(bool good, const std::string &text);

  // Waits and tells meanwhile.
  void rest(tov_test::Millis span);
  // The same until the condition holds; false when it did not in time. Slow builds get more time.
  bool wait(const std::function<bool()> &holds, tov_test::Millis limit);

  const char *bold() const { return colour_ ? "\033[1m" : ""; }
  const char *normal() const { return colour_ ? "\033[0m" : ""; }

 private:
  struct Line {
    int64_t time_ns;  // CLOCK_MONOTONIC
    std::string source;
    std::string text;
  };

  bool look_until(int64_t end_ns, const std::function<bool()> &holds);
  void tell();
  void take_notices(std::vector<Line> &lines);
  void take_events(std::vector<Line> &lines);
  void take_console(std::vector<Line> &lines);
  void print(const Line &line);

  const tov_test::Device &device_;
  const bool colour_;
  const int64_t begin_ns_;
  const int64_t wall_minus_monotonic_ns_;
  size_t notices_told_ = 0;
  std::map<std::string, size_t> events_told_;  // by name of the log
  size_t console_told_bytes_ = 0;
};

}  // namespace tov_demo

#endif  // TOV_DEMO_NARRATOR_H
