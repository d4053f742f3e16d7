// The ways out of the daemon: lack of memory ends it on purpose.
#include "core/run/farewell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>
#include <string>

#include "tests/module/supervision.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Asks for more than there can be. The sanitizers answer such a request themselves.
void exhaust_memory() {
#if defined(TOV_SANITIZE_ADDRESS) || defined(TOV_SANITIZE_THREAD)
  std::get_new_handler()();
#else
  volatile size_t size = PTRDIFF_MAX;
  ::operator delete(::operator new(size));
#endif
}

struct Ending {
  int status = 0;
  std::string said;
};

Ending ending_of(void (*body)()) {
  Ending ending;
  testing::internal::CaptureStdout();
  const pid_t child = fork();
  if (child == 0) {
    body();
    _exit(0);
  }
  EXPECT_EQ(waitpid(child, &ending.status, 0), child);
  ending.said = testing::internal::GetCapturedStdout();
  return ending;
}

class LackOfMemory : public tov_test::Supervision {};

}  // namespace

TEST_F(LackOfMemory, EndsTheProcessOnPurposeAndWithOneLine) {
  const Ending ending = ending_of([] {
    tov_core_end_without_memory();
    exhaust_memory();
  });
  EXPECT_TRUE(WIFEXITED(ending.status));
  EXPECT_EQ(WEXITSTATUS(ending.status), 1);
  EXPECT_THAT(ending.said, HasSubstr("]No memory is left, tov will be restart.\n"));
  EXPECT_THAT(events(TOV_LOG_ERROR), ElementsAre("No memory is left, tov will be restart."));
}

#if !defined(TOV_SANITIZE_ADDRESS) && !defined(TOV_SANITIZE_THREAD)
TEST_F(LackOfMemory, WouldOtherwiseEndItWithoutALineInTheLog) {
  const Ending ending = ending_of([]() noexcept {  // as no exception may leave a thread's body
    std::set_new_handler(nullptr);
    exhaust_memory();
  });
  EXPECT_TRUE(WIFSIGNALED(ending.status));
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
}
#endif
