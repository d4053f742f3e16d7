// Makes every creation of a System V semaphore set fail.
#ifndef TOV_TEST_MODULE_NO_SEMAPHORES_H
#define TOV_TEST_MODULE_NO_SEMAPHORES_H

#include <gtest/gtest.h>

#include <fstream>
#include <ostream>
#include <string>

namespace tov_test {

// While it lives, the limit on semaphore sets is 0. The limit belongs to the IPC namespace: use it
// in a private root only.
class no_semaphores_s {
 public:
  no_semaphores_s() {
    std::ifstream limits(LIMITS);
    std::getline(limits, old_);
    write("250 32000 32 0");
  }
  no_semaphores_s(const no_semaphores_s &) = delete;
  no_semaphores_s &operator=(const no_semaphores_s &) = delete;
  ~no_semaphores_s() { write(old_); }

 private:
  static constexpr char LIMITS[] = "/proc/sys/kernel/sem";
  static void write(const std::string &limits) {
    EXPECT_TRUE(std::ofstream(LIMITS) << limits << std::flush) << "cannot set " << LIMITS;
  }
  std::string old_;
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_NO_SEMAPHORES_H
