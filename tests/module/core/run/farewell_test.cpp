// The ways out of the daemon: the one that all take, and lack of memory, which ends it on purpose.
#include "core/run/farewell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

#include <exception>
#include <new>
#include <string>

#include "include/tov_registry.h"
#include "tests/module/world.h"
#include "tests/support/in_child.h"
#include "tests/support/stdout.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Asks for more than there can be. The sanitizers answer such a request themselves.
void exhaust_memory() {
#if defined(TOV_SANITIZE_ADDRESS) || defined(TOV_SANITIZE_THREAD)
  throw std::bad_alloc();
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
  ending.said = tov_test::printed_by([&] {
    ending.status = tov_test::status_in_child([&] {
      body();
      return 0;
    });
  });
  return ending;
}

class LackOfMemory : public tov_test::World {};

}  // namespace

TEST(TovCoreLeave, WritesWhatWaitsOnStandardOutputAndRunsNoExitHandler) {
  const Ending ending = ending_of([] {
    atexit([] { printf("a handler"); });
    printf("half a line");
    tov_core_leave(7);
  });
  EXPECT_TRUE(WIFEXITED(ending.status));
  EXPECT_EQ(WEXITSTATUS(ending.status), 7);
  EXPECT_EQ(ending.said, "half a line");
}

TEST_F(LackOfMemory, EndsTheProcessOnPurposeAndWithOneLine) {
  const Ending ending = ending_of([]() noexcept {  // as no exception may leave a thread's body
    tov_core_end_without_memory();
    exhaust_memory();
  });
  EXPECT_TRUE(WIFEXITED(ending.status));
  EXPECT_EQ(WEXITSTATUS(ending.status), 1);
  EXPECT_THAT(ending.said, HasSubstr("]No memory is left, tov will be restart.\n"));
  EXPECT_THAT(events(TOV_LOG_ERROR), ElementsAre("No memory is left, tov will be restart."));
}

TEST_F(LackOfMemory, ThatIsCaughtEndsNothing) {
  const Ending ending = ending_of([] {
    tov_core_end_without_memory();
    try {
      exhaust_memory();
    } catch (const std::bad_alloc &) {
      tov_core_leave(7);
    }
  });
  EXPECT_TRUE(WIFEXITED(ending.status));
  EXPECT_EQ(WEXITSTATUS(ending.status), 7);
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
}

TEST_F(LackOfMemory, OfAChildIsNoNewsOfTheDaemons) {
  tov_core_end_without_memory();
  const Ending ending = ending_of([]() noexcept { exhaust_memory(); });
  EXPECT_TRUE(WIFEXITED(ending.status));
  EXPECT_EQ(WEXITSTATUS(ending.status), 1);
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
  std::set_terminate(abort);
}

#if !defined(TOV_SANITIZE_ADDRESS) && !defined(TOV_SANITIZE_THREAD)
TEST_F(LackOfMemory, WouldOtherwiseEndItWithoutALineInTheLog) {
  const Ending ending = ending_of([]() noexcept {  // as no exception may leave a thread's body
    std::set_terminate(abort);
    exhaust_memory();
  });
  EXPECT_TRUE(WIFSIGNALED(ending.status));
  EXPECT_THAT(events(TOV_LOG_ERROR), IsEmpty());
}
#endif
