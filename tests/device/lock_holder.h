// Holds the lock of a registration file, as a process does that has not ended yet.
#ifndef TOV_TEST_LOCK_HOLDER_H
#define TOV_TEST_LOCK_HOLDER_H

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "tests/support/device.h"

namespace tov_test {

// A process of its own that holds the lock of a file: the test must be free to open and close the
// file, which would drop a lock of its own.
class LockHolder {
 public:
  LockHolder(const Device &device, const std::string &file) {
    const std::string path = device.path(file);
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) < 0) throw std::runtime_error("no pipe");
    holder_ = fork();
    if (holder_ == 0) hold(path.c_str(), ready[1]);
    close(ready[1]);
    char held = 0;
    const bool done = read(ready[0], &held, 1) == 1;
    close(ready[0]);
    if (!done) throw std::runtime_error(file + " cannot be locked");
  }
  LockHolder(const LockHolder &) = delete;
  LockHolder &operator=(const LockHolder &) = delete;
  ~LockHolder() { end(); }

  void end() {
    if (holder_ <= 0) return;
    kill(holder_, SIGKILL);
    waitpid(holder_, nullptr, 0);
    holder_ = -1;
  }

 private:
  [[noreturn]] static void hold(const char *path, int ready) {
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fd < 0 || fcntl(fd, F_SETLK, &whole) < 0 || write(ready, "", 1) != 1) _exit(1);
    for (;;)
      pause();
  }

  pid_t holder_ = -1;
};

}  // namespace tov_test

#endif  // TOV_TEST_LOCK_HOLDER_H
