// Children of a test that live as long as the test wants.
#include "tests/support/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/children.h"
#include "tests/support/processes.h"
#include "tests/support/spawn.h"
#include "util/owner.h"

namespace tov_test {

static constexpr Millis LIMIT_MS{30'000};
static constexpr Millis ARRIVAL_MS{30};  // of a signal

static std::vector<std::string> environment() {
  std::vector<std::string> variables;
  for (char *const *variable = environ; *variable != nullptr; variable++)
    variables.emplace_back(*variable);
  return variables;
}

pid_t start_program(const std::vector<std::string> &words,
                    const std::optional<std::vector<gid_t>> &groups) {
  const pid_t pid =
      spawn_process({.argv = words, .env = environment(), .session = false, .groups = groups});
  // The kernel shows the words a moment after the execution itself.
  wait_until([pid] { return !command_line(pid).empty() || process_state(pid) == 'Z'; }, LIMIT_MS);
  return pid;
}

pid_t start(const std::string &command) {
  std::istringstream text(command);
  std::vector<std::string> words;
  for (std::string word; text >> word;)
    words.push_back(word);
  return start_program(words);
}

pid_t gone_process() {
  Child child;
  child.end();
  return child.pid();
}

[[noreturn]] static void sleep_after(const std::function<void()> &setup, int ready) {
  setup();
  (void)!write(ready, "r", 1);
  for (;;)
    pause();
}

Child::Child(const std::function<void()> &setup) {
  int ends[2] = {-1, -1};
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const tov_fd_t in(ends[0]);
  tov_fd_t out(ends[1]);
  fflush(stdout);
  pid_ = fork_child();
  if (pid_ == 0) sleep_after(setup, out.n);
  out.reset();
  char letter = 0;
  EXPECT_EQ(read(in.n, &letter, 1), 1) << "the child has failed";
  // It touches its last new page on the way into the pause.
  wait_until([this] { return process_state(pid_) == 'S' || !process_lives(pid_); }, LIMIT_MS);
}

void Child::end() {
  if (pid_ > 0 && !buried_) (void)end_child(pid_);
  buried_ = true;
}

int Child::ended_by() {
  const auto status = wait_child(pid_, LIMIT_MS);
  buried_ = status.has_value();
  return status && WIFSIGNALED(*status) ? WTERMSIG(*status) : 0;
}

bool Child::is_unharmed() const {
  return !wait_until([this] { return !process_lives(pid_); }, ARRIVAL_MS);
}

Zombie::Zombie() : pid_(fork_child()) {
  if (pid_ == 0) _exit(0);
  siginfo_t ended;
  (void)waitid(P_PID, static_cast<id_t>(pid_), &ended, WEXITED | WNOWAIT);
}

void Zombie::bury() {
  if (pid_ > 0) (void)bury_child(pid_);
  pid_ = -1;
}

}  // namespace tov_test
