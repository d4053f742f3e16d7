// What the stories of searches share: a listed program that is not found after its start for as
// long as a test wants.
//
// It is a victim that the daemon registered when it was executed. Before it is killed a script is
// put in its place: that is what the daemon starts, and it is no process of the program's command
// line. Told to, the script becomes the program, which then is found.
#ifndef TOV_TEST_SEARCHED_H
#define TOV_TEST_SEARCHED_H

#include <signal.h>
#include <stdio.h>
#include <sys/types.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "tests/device/story.h"
#include "tests/device/waits.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

namespace tov_test {

inline constexpr double SEARCH_S = 5.5;  // ten pauses of 0.1 s, 0.2 s...

class SearchedProgram {
 public:
  // Installs and lists it. The daemon reads the lists when it starts.
  SearchedProgram(Device &device, const std::string &prefix)
      : task(install_task(device, prefix, {})), device_(&device) {
    device.write("/etc/tov/proc/" + task.name, task.command + " TOV_RESTART");
  }

  // Starts the program and waits until the daemon has registered it.
  //   vsd  in the group of that virtual device; 0: of none
  void start(int vsd = 0) {
    SpawnOptions options;
    if (vsd != 0) options.groups = {{static_cast<gid_t>(3000 + 100 * vsd)}};
    device_->spawn({task.program}, options);
    next_birth(*device_, task);
    need_event(*device_, REGISTER_LOG, entered(task, vsd));
  }

  // Kills it, and waits until the daemon has started the script and so searches in vain.
  void kill_into_search() {
    kill_quietly();
    need_search();
  }
  // In two steps.
  void kill_quietly() {
    put_script_in_its_place();
    dead = task.pid;
    device_->kill(dead, SIGKILL);
  }
  void need_search(Millis limit = STORY_LIMIT_MS) {
    if (!wait_until([&] { return !device_->read(started_file()).empty(); }, limit))
      throw std::runtime_error(task.name + " is not searched for\n" + device_->dump());
    script = std::stoi(device_->read(started_file()));
  }

  // What is started from now on is the script.
  void put_script_in_its_place() {
    replace(task.program, aside());
    device_->write(task.program, script_text(), 0755);
  }
  // Puts the program back in its place; from now on whoever executes it gets it.
  void restore() { replace(aside(), task.program); }
  // Lets the script become the program, or end with status 3.
  void let_script_become_it() { tell_script("become"); }
  void let_script_fail() { tell_script("fail"); }

  std::string missed() const {
    return "tov_spawn--> third part[" + task.program + "] Not Found new pid!";
  }
  std::string found_as_child(pid_t pid) const {
    return "tov_spawn--> third part Normal[" + task.program + "] new pid: " + std::to_string(pid);
  }
  std::string found_elsewhere(pid_t pid) const {
    return "tov_spawn--> third part Daemon[" + task.program + "] new pid: " + std::to_string(pid);
  }

  Task task;
  pid_t dead = 0;    // its last process
  pid_t script = 0;  // what was started for it

 private:
  std::string aside() const { return task.program + ".aside"; }
  std::string started_file() const { return "/data/started." + task.name; }
  std::string order_file() const { return "/data/order." + task.name; }

  // The file is renamed: a running program's cannot be written.
  void replace(const std::string &from, const std::string &to) {
    if (rename(device_->path(from).c_str(), device_->path(to).c_str()) != 0)
      throw std::runtime_error("cannot rename " + from);
  }
  void tell_script(const std::string &order) {
    device_->write(order_file() + ".new", order + "\n");
    replace(order_file() + ".new", order_file());
  }
  std::string script_text() const {
    return "#!/bin/sh\necho $$ > " + started_file() + ".new\nmv " + started_file() + ".new " +
           started_file() + "\nuntil test -e " + order_file() +
           "; do sleep 0.05; done\nread order < " + order_file() + "\nrm " + order_file() +
           "\ntest $order = become && exec " + task.program + "\nexit 3\n";
  }

  Device *device_;
};

}  // namespace tov_test

#endif  // TOV_TEST_SEARCHED_H
