// How a thread of the daemon begins and ends.
#include "core/run/thread.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

#include "core/run/flags.h"
#include "include/tov_registry.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/world.h"

using testing::ElementsAre;

using TovCoreThreadEnd = tov_test::World;

TEST(TovCoreThreadName, KernelKeepsFifteenCharacters) {
  std::thread([] {
    char name[16] = "";
    EXPECT_EQ(tov_core_thread_name("tov_cnmsg_handle"), 0);
    EXPECT_EQ(pthread_getname_np(pthread_self(), name, sizeof name), 0);
    EXPECT_STREQ(name, "tov_cnmsg_handl");
  }).join();
}

TEST_F(TovCoreThreadEnd, AsksAllOthersToEndAndTellsWhy) {
  tov_test::note_sleeps(false);
  tov_core_thread_end("a_thread", -3, ENOENT);
  EXPECT_EQ(tov_flag_get(quit), 1);
  EXPECT_THAT(events(TOV_LOG_ERROR),
              ElementsAre("Thread \"a_thread\" exit, tov will be restart. res=-3, No such file or "
                          "directory(2)"));
  EXPECT_THAT(tov_test::fake_sleep.slept_us, ElementsAre(1'000'000)) << "for the logs";
}
