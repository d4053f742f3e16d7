// The device of the demonstration, the example programs in it, and what became of each of them.
//
// The programs are those of examples/, copied to /usr/local/bin of the device. They register
// themselves through libtov; the demonstration writes no registration for them.
// One thread. What should always work throws std::runtime_error.
#ifndef TOV_DEMO_STAGE_H
#define TOV_DEMO_STAGE_H

#include <stddef.h>
#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "demo/narrator.h"
#include "tests/support/device.h"

namespace tov_demo {

// How one program ended and what followed.
struct Outcome {
  std::string program;
  std::string ended_by;
  pid_t before;
  pid_t after;       // 0: it did not come back
  double back_ms;    // from its end to the new program's main; < 0: nothing to measure
  bool as_expected;  // it came back, or stayed away when it should
  std::string remark = {};
};

struct Program {
  std::string name;
  std::vector<std::string> arguments = {};
  size_t starts = 0;  // how many of its starts have been seen
  pid_t pid = 0;      // of the latest
};

class Stage {
 public:
  Stage();

  Narrator &narrator() { return narrator_; }
  tov_test::Device &device() { return device_; }
  const std::vector<Outcome> &outcomes() const { return outcomes_; }

  void start_daemon();
  void kill_daemon();

  // Starts a program and waits until it has registered itself.
  Program &start_program(const std::string &name, const std::vector<std::string> &arguments = {});
  Program &program(const std::string &name);

  // Sends a signal. Returns the moment before.
  int64_t end(Program &program, int signal);
  // Waits for the next start of a program that ended at `ended_ns`. `how` names the end in the
  // table of outcomes.
  void see_back(Program &program, int64_t ended_ns, const std::string &how,
                const std::string &remark);
  // Both, for one program, or for all in one instant.
  void end_and_see_back(Program &program, int signal, const std::string &remark = "");
  void end_all_and_see_back(int signal);
  // Sends a signal to a program that is expected to stay away.
  void end_and_see_away(Program &program, int signal, const std::string &remark);
  // Kills the program until the daemon suspends it, then waits for its return.
  void end_until_suspended(Program &program);

 private:
  tov_test::Device device_;
  Narrator narrator_;
  std::vector<Program> programs_;
  std::vector<Outcome> outcomes_;
};

}  // namespace tov_demo

#endif  // TOV_DEMO_STAGE_H
