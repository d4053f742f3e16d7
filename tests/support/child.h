// Children of a test that live as long as the test wants: programs, and forks of the test itself.
//
// Beside it: in_child.h runs a part of a test in a fork and waits for its end; spawn.h prepares a
// program's start in every detail, for devices; children.h keeps the list of all children.
#ifndef TOV_TEST_CHILD_H
#define TOV_TEST_CHILD_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tov_test {

// Starts a program in the test's own session and environment, its output discarded, and waits until
// /proc shows its words or it has ended. It is a child of the test (end_child, end_children of
// children.h). Throws std::runtime_error.
//   groups  supplementary groups; unset: the test's
pid_t start_program(const std::vector<std::string> &words,
                    const std::optional<std::vector<gid_t>> &groups = {});
// The same; the words are separated by blanks.
pid_t start(const std::string &command);

// The id of a process that has just ended, and is buried.
pid_t gone_process();

// Owns one child.
class Child {
 public:
  // A fork that does `setup`, keeps what that has taken (locks, groups, memory), and sleeps.
  // Returns when it sleeps; its size does not change any more. A setup that ends the child fails
  // the test. Fork from a single-threaded test only, if the setup does more than a system call.
  explicit Child(const std::function<void()> &setup = [] {});
  // A program.
  explicit Child(const std::vector<std::string> &words) : pid_(start_program(words)) {}
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;
  ~Child() { end(); }

  // Also after its end.
  pid_t pid() const { return pid_; }
  std::string name() const { return std::to_string(pid_); }
  // Kills it, unless it has ended, and buries it.
  void end();
  // The signal that has ended it, waiting for its end; 0 when none did within a while.
  int ended_by();
  // Whether it lives, seen after a moment in which a signal would have arrived.
  bool is_unharmed() const;

 private:
  pid_t pid_ = -1;
  bool buried_ = false;
};

// A child that has ended and is not buried while this lives.
class Zombie {
 public:
  Zombie();
  Zombie(const Zombie &) = delete;
  Zombie &operator=(const Zombie &) = delete;
  ~Zombie() { bury(); }
  pid_t pid() const { return pid_; }
  void bury();

 private:
  pid_t pid_;
};

}  // namespace tov_test

#endif  // TOV_TEST_CHILD_H
