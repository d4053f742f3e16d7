// How a thread begins.
#include "core/run/thread.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <thread>

TEST(TovCoreThreadName, KernelKeepsFifteenCharacters) {
  std::thread([] {
    char name[16] = "";
    EXPECT_EQ(tov_core_thread_name("tov_cnmsg_handle"), 0);
    EXPECT_EQ(pthread_getname_np(pthread_self(), name, sizeof name), 0);
    EXPECT_STREQ(name, "tov_cnmsg_handl");
  }).join();
}
