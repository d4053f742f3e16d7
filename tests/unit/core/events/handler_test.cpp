// The event handler's thread over a simulated kernel: programs that were gone before they could be
// asked what they had executed.
#include "core/events/handler.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "core/run/ends.h"
#include "core/run/flags.h"
#include "core/run/loss.h"
#include "core/run/wake.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "tests/support/event_ring.h"
#include "tests/unit/sim/kernel.h"
#include "tests/unit/sim/platform.h"
#include "tests/unit/waiting.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using tov_test::kernel;
using tov_test::platform;
using tov_test::US_PER_MS;
using tov_test::US_PER_S;

static constexpr char DAEMON[] = "/opt/daemon";
static constexpr pid_t GONE = 4'000'000;

namespace {

class TovVanished : public tov_test::Waiting, protected tov_test::EventRing {
 protected:
  TovVanished() {
    kernel().write_file(TOV_THIRD_PART_LIST, std::string(DAEMON) + " TOV_RESTART\n");
    (void)tov_loss_take();
  }

  static void at(int64_t ms, std::function<void()> what) {
    kernel().after(ms * US_PER_MS, std::move(what));
  }
  // Somebody executes something and is gone.
  static void vanish() { put(TOV_EVENT_EXEC, GONE, 0); }
  // The thread's body, for so long.
  static void run_thread(int64_t ms) {
    at(ms, [] {
      tov_flag_set(quit, 1);
      tov_wake();
    });
    (void)tov_cnmsg_handle(nullptr);
  }
  static const std::vector<std::string> &registered() { return platform().registered; }
  static std::string as_listed(pid_t pid) { return std::to_string(pid) + " TOV_RESTART\n"; }
};

}  // namespace

TEST_F(TovVanished, ListedProgramThatHasGoneToTheBackgroundIsRegistered) {
  pid_t daemon = 0;
  at(10, [&] {
    daemon = kernel().start({DAEMON});
    vanish();
  });
  run_thread(1'000);
  EXPECT_THAT(registered(), ElementsAre(as_listed(daemon)));
}

// Who goes to the background forks more than once.
TEST_F(TovVanished, OnlyWhatIsStillThereAfterAMomentCounts) {
  pid_t daemon = 0, passing = 0;
  at(10, [&] {
    passing = kernel().start({DAEMON});
    vanish();
  });
  at(50, [&] {
    daemon = kernel().start({DAEMON});
    kernel().end(passing);
  });
  run_thread(1'000);
  EXPECT_THAT(registered(), ElementsAre(as_listed(daemon)));
}

// What has run for long was seen before: it was stopped, or is somebody's worker.
TEST_F(TovVanished, WhoIsOlderIsPassedOver) {
  (void)kernel().start({DAEMON});
  at(5'000, vanish);
  run_thread(8'000);
  EXPECT_THAT(registered(), IsEmpty());
}

TEST_F(TovVanished, OneWalkASecondServesAll) {
  for (int i = 0; i < 2'000; i++)
    at(100 + i, vanish);
  const int before = kernel().calls(tov_test::CALL_OPENDIR);
  run_thread(4'000);
  EXPECT_GE(kernel().calls(tov_test::CALL_OPENDIR) - before, 2);
  EXPECT_LE(kernel().calls(tov_test::CALL_OPENDIR) - before, 4);
}

TEST_F(TovVanished, NobodyIsLookedForWhereNothingIsListed) {
  kernel().write_file(TOV_THIRD_PART_LIST, "");
  at(10, vanish);
  const int before = kernel().calls(tov_test::CALL_OPENDIR);
  run_thread(2'000);
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR), before);
}

TEST_F(TovVanished, NobodyIsLookedForBehindAProgramThatIsThere) {
  const pid_t other = kernel().start({"/opt/other"});
  at(10, [other] { put(TOV_EVENT_EXEC, other, 0); });
  const int before = kernel().calls(tov_test::CALL_OPENDIR);
  run_thread(2'000);
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPENDIR), before);
}

// Its memory goes before it is a zombie: it may show its executable, and nothing the next moment.
TEST_F(TovVanished, WhoGoesWhileItIsAskedIsFollowed) {
  for (int nth = 1; nth <= 4; nth++) {
    SCOPED_TRACE(nth);
    pid_t daemon = 0;
    at(10, [&] {
      const pid_t front = kernel().start({DAEMON});
      daemon = kernel().start({DAEMON});
      kernel().before(tov_test::CALL_READLINK, nth, [front] {
        kernel().process(front).exe.clear();
        kernel().process(front).words.clear();
      });
      put(TOV_EVENT_EXEC, front, 0);
    });
    run_thread(1'500);
    EXPECT_THAT(registered(), Contains(as_listed(daemon)));
    tov_flag_set(quit, 0);
    kernel().end(daemon);
  }
}

TEST_F(TovVanished, ProgramIsRegisteredUnderWhatItWasExecutedWith) {
  at(10, [] { put(TOV_EVENT_EXEC, kernel().start({DAEMON}), 0); });
  run_thread(1'000);
  EXPECT_THAT(platform().registered_as, ElementsAre(DAEMON));
}

// ---- ends -----------------------------------------------------------------------------------

// The first thread had ended by itself, and the kernel tells of it last.
TEST_F(TovVanished, StopOfAProgramWhoseFirstThreadIsToldLastIsNoRestart) {
  const pid_t pid = kernel().start({"/opt/a"});
  add(pid, "/opt/a");
  kernel().pass(US_PER_S);
  kernel().end(pid);
  (void)tov_ends_note(pid, pid + 1, SIGTERM, kernel().now_us());
  (void)tov_ends_note(pid, pid, 0, kernel().now_us() + 1);
  tov_cn_msg_exit(pid, 0);
  EXPECT_EQ(count(), 0);
  EXPECT_EQ(forks(), 0u);
}
