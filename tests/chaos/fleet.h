// The programs of a chaos run: what they are, what should become of them, and what is seen of them.
//
// All are workers (support/programs/worker.cpp) under names of their own, linked to one file so
// that a hundred of them cost no memory.
#ifndef TOV_CHAOS_FLEET_H
#define TOV_CHAOS_FLEET_H

#include <stddef.h>
#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/chaos/kinds.h"
#include "tests/support/device.h"
#include "tests/support/processes.h"

namespace tov_chaos {

using tov_test::Device;
using tov_test::Millis;

// The only source of chance: a run is repeated by its seed, as far as the machine's timing goes.
class Chance {
 public:
  explicit Chance(uint64_t seed) : engine_(seed) {}
  // 0 to `count` - 1
  size_t below(size_t count) {
    return std::uniform_int_distribution<size_t>(0, count - 1)(engine_);
  }
  int between(int low, int high) { return std::uniform_int_distribution<int>(low, high)(engine_); }
  template <typename List>
  auto &pick(List &list) {
    return list[below(std::size(list))];
  }

 private:
  std::mt19937_64 engine_;
};

// An end that we brought about. What comes of it is judged in returns.cpp.
struct Death {
  pid_t pid = 0;  // 0: none, or judged
  int64_t killed_ns = 0;
  bool delayed = false;     // the daemon knew of the program's restart delay
  int64_t returned_ns = 0;  // birth of its successor; 0: none yet
};

struct Program {
  const Kind *kind = nullptr;
  std::string name;
  std::string path;
  std::string command;
  std::string start_command;  // what is executed to start it; it then executes `command`

  int delay_s = 0;  // it asks to be restarted so late, by the daemon's clock

  // The model: what must be true once everything has settled.
  bool should_run = false;
  bool supervised = false;  // the daemon knows it, dead or alive

  // What is under way; nothing is done to a program that is not steady().
  pid_t pid = 0;           // latest instance that reported its birth
  int64_t changed_ns = 0;  // time of the latest report
  bool fresh = false;      // started by us, so the daemon may not know it yet
  pid_t condemned = 0;     // instance to which something deadly was done
  bool looping = false;
  bool uncertain = false;  // whether the daemon knows it turns out at its next start
  bool cancelling = false;
  pid_t doubled = 0;     // the older of two instances that we started on purpose
  pid_t dropped = 0;     // it, when it was ended: the daemon forgets it
  int64_t wake_ns = 0;   // paused until then; 0: it is not
  pid_t upgraded = 0;    // instance whose executable was replaced
  pid_t titled = 0;      // instance that has rewritten its command line
  pid_t leaderless = 0;  // instance whose first thread has ended
  bool proven = false;   // the daemon has carried out what the latest report told of
  // An instance ended before its requests were carried out: until the next daemon there may be a
  // second record, of a dead process, which makes of a deliberate stop a lost exit.
  bool tainted = false;
  // The daemon knows of the delay; its successor does not, which finds no delay in files.
  bool delayed = false;
  bool spans = false;      // it was registering anew when the daemon was killed
  bool withdrawn = false;  // when it was dead already: nothing may start it
  Death death;

  std::set<pid_t> born;
  std::set<pid_t> registered;
  size_t reports_read = 0;
  size_t births = 0;
  std::deque<int64_t> births_ns;     // the latest ones
  std::map<pid_t, uint64_t> living;  // instances that were born and not seen dead; their starts
  std::deque<std::string> history;   // for the report of a failure
};

struct RegistrationFile {
  int vsd;
  std::string path;
  pid_t pid;  // of the process that it registers
  std::string command;
  pid_t child;  // that was started in its place, and not yet found by the daemon; 0: none
};

// What a program became when it executed another one: not supervised from then on.
struct Stranger {
  pid_t pid;
  std::string command;
};

class Fleet {
 public:
  // `delay_s` is the longest restart delay of a program.
  Fleet(Device &device, size_t size, int delay_s);

  // Puts programs, scripts and lists into the device. Before the first daemon.
  void install();
  // Starts an instance as a child of ours.
  void start(Program &program);
  // Takes in what the instances have reported since the last call; buries our dead children.
  void read_reports();
  // Asks the daemon whether it has carried out all that was reported so far.
  void prove_requests();
  // Whether the program runs undisturbed and everybody knows of it.
  bool steady(const Program &program) const;

  // Each under the command line that it was started with, whatever it shows.
  std::vector<Device::Process> processes() const;
  static std::vector<pid_t> instances(const Program &program,
                                      const std::vector<Device::Process> &processes);
  // What a fresh daemon will find.
  std::vector<RegistrationFile> registration_files() const;
  std::string registration_path(const Program &program, pid_t pid) const;

  // Has a program execute another one. True when it did; the other one lives on as a stranger.
  bool become_stranger(Program &program);
  bool lives(const Stranger &stranger) const;
  // Gives the id of a program that has just ended to a stranger. False when it was not free in
  // time.
  bool give_id(const Program &program, pid_t id);
  // Puts another file in the place of a program's executable, as an upgrade does.
  void upgrade(const Program &program);
  // Has a program rewrite its command line, or end its first thread.
  void rewrite_title(Program &program);
  void end_first_thread(Program &program);
  // Lets a program fail again and again, or no longer.
  void loop(Program &program, bool on);
  // Has a program withdraw its registration and register again, with its delay.
  void register_anew(Program &program);
  void pause(Program &program, Millis length);
  // Wakes those whose time has come, or all.
  void wake(bool all);

  // Instances that live at this moment, side by side; more than one of them is a second copy.
  static std::vector<pid_t> side_by_side(Program &program);

  void note(Program &program, const std::string &text) const;

  std::vector<Program> programs;
  std::vector<Stranger> strangers;

 private:
  void read_reports(Program &program);
  void take_report(Program &program, const std::string &what, const std::string &rest);
  static void take_birth(Program &program, pid_t pid, int64_t born_ns, uint64_t started);
  bool is_itself(const Program &program) const;

  Device &device_;
  std::vector<pid_t> children_;  // not yet buried
};

int64_t now_ns();

}  // namespace tov_chaos

#endif  // TOV_CHAOS_FLEET_H
