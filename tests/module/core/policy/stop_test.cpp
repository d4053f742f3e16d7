// A deliberate stop, while others work in the directory of its device's members.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>

#include "core/policy/exit.h"
#include "core/registry/tov_chain.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/module/world.h"
#include "tests/support/child.h"
#include "tests/support/files.h"

using tov_test::exists;
using tov_test::GONE;
using tov_test::write_file;

namespace {

// A file that goes at the very moment at which it is to be opened.
std::string goes_at_opening;

class TovStop : public tov_test::World {
 protected:
  void SetUp() override {
    World::SetUp();
    goes_at_opening.clear();
  }
  static std::string member_file(pid_t pid) { return "/tmp/vsd/3/tov/" + std::to_string(pid); }
};

}  // namespace

// Stands in front of the C library's.
extern "C" int openat(int dir, const char *name, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const mode_t mode = (flags & (O_CREAT | __O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  if (!goes_at_opening.empty() && strcmp(name, goes_at_opening.c_str()) == 0)
    (void)unlinkat(dir, std::exchange(goes_at_opening, "").c_str(), 0);
  return static_cast<int>(syscall(SYS_openat, dir, name, flags, mode));
}

TEST_F(TovStop, EntryThatGoesMeanwhileDoesNotUndoIt) {
  add(GONE, "/opt/a", RESPAWN, 3);
  for (const pid_t pid : {GONE, GONE + 1, GONE + 2})
    write_file(member_file(pid), "");
  goes_at_opening = std::to_string(GONE + 1);
  tov_handle_netlink_exit(GONE, SIGTERM, 0);
  ASSERT_EQ(goes_at_opening, "") << "it was there when the directory was listed";
  EXPECT_EQ(find(GONE), nullptr);
  EXPECT_FALSE(exists(member_file(GONE)));
  EXPECT_FALSE(exists(member_file(GONE + 1)));
  EXPECT_TRUE(exists(member_file(GONE + 2)));
}

TEST_F(TovStop, OwnEntryThatGoesMeanwhileDoesNotUndoIt) {
  add(GONE, "/opt/a", RESPAWN, 3);
  write_file(member_file(GONE), "");
  goes_at_opening = std::to_string(GONE);
  tov_handle_netlink_exit(GONE, SIGTERM, 0);
  EXPECT_EQ(goes_at_opening, "");
  EXPECT_EQ(find(GONE), nullptr);
}

// It is a member of the device by now, and the file says so.
TEST_F(TovStop, FileOfWhoHasTheIdNowStays) {
  const tov_test::Child next;
  tov_pid_t *stopped = add(next.pid(), "/opt/a", RESPAWN, 3);
  {
    const tov_chains_guard_t held(tov_chains);
    stopped->identity.started++;
  }
  write_file(member_file(next.pid()), "");
  tov_handle_netlink_exit(next.pid(), SIGTERM, 0);
  EXPECT_EQ(find(next.pid()), nullptr);
  EXPECT_TRUE(exists(member_file(next.pid())));
}
