// Takes the place of the System V semaphore calls in a test program and makes them fail when a test
// wants that; everything else goes to the kernel.
// Include it in one file of the program only; it defines the functions.
#ifndef TOV_TEST_MODULE_FAILING_SEM_H
#define TOV_TEST_MODULE_FAILING_SEM_H

#include <errno.h>
#include <stdarg.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tov_test {

// The errno that a call fails with; 0: it does not. Lives in the process that sets it.
struct FailingSem {
  int set_value = 0;      // semctl(SETVAL)
  int open_existing = 0;  // semget without IPC_CREAT
  int key = 0;            // ftok...
  int key_failures = 0;   // ... so many times
};

inline FailingSem failing_sem;

}  // namespace tov_test

extern "C" key_t ftok(const char *path, int project) noexcept {
  if (tov_test::failing_sem.key_failures > 0) {
    tov_test::failing_sem.key_failures--;
    errno = tov_test::failing_sem.key;
    return -1;
  }
  struct stat file;
  if (stat(path, &file) < 0) return -1;
  return static_cast<key_t>((file.st_ino & 0xFFFF) | ((file.st_dev & 0xFF) << 16) |
                            ((static_cast<unsigned int>(project) & 0xFF) << 24));
}

extern "C" int semget(key_t key, int count, int flags) noexcept {
  if (tov_test::failing_sem.open_existing != 0 && (flags & IPC_CREAT) == 0) {
    errno = tov_test::failing_sem.open_existing;
    return -1;
  }
  return static_cast<int>(syscall(SYS_semget, key, count, flags));
}

extern "C" int semctl(int id, int number, int command, ...) noexcept {
  if (tov_test::failing_sem.set_value != 0 && command == SETVAL) {
    errno = tov_test::failing_sem.set_value;
    return -1;
  }
  unsigned long argument = 0;
  if (command == SETVAL || command == IPC_STAT) {
    va_list arguments;
    va_start(arguments, command);
    argument = va_arg(arguments, unsigned long);
    va_end(arguments);
  }
  return static_cast<int>(syscall(SYS_semctl, id, number, command, argument));
}

#endif  // TOV_TEST_MODULE_FAILING_SEM_H
