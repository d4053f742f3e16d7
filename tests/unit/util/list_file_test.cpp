// Looking executables up in list files.
#include "util/list_file.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <string.h>

#include <string>
#include <vector>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;
using tov_test::kernel_s;

static constexpr char LIST[] = "/etc/list";

namespace {

class PidToProc : public tov_test::Simulated {};

class TovProcInTovdb : public tov_test::Simulated {
 protected:
  struct answer_s {
    int found;
    std::string word;
  };
  static void write_list(const std::string &text) { kernel().write_file(LIST, text); }
  static answer_s look_up(const char *name, int size = 128) {
    std::vector<char> out(static_cast<size_t>(size), 'x');
    const int found = tov_proc_in_tovdb(LIST, name, out.data(), size);
    return {found, std::string(out.data(), strnlen(out.data(), out.size()))};
  }
};

class TovPidInTovdb : public TovProcInTovdb {
 protected:
  static std::string look_up_process(pid_t pid) {
    char out[64] = "untouched";
    return std::to_string(tov_pid_in_tovdb(pid, LIST, out, sizeof out)) + " " + out;
  }
};

}  // namespace

// ---- the executable of a process ------------------------------------------------------------

TEST_F(PidToProc, LinkIsReadIntoAZeroedBuffer) {
  char buf[64];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(pid_to_proc(kernel().start({"/opt/foo", "-d"}), buf, sizeof buf), 1);
  EXPECT_STREQ(buf, "/opt/foo");
  EXPECT_EQ(buf[sizeof buf - 1], '\0');
}

TEST_F(PidToProc, ShortBufferIsFilledWithoutATerminator) {
  char buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(pid_to_proc(kernel().start({"/opt/foo"}), buf, 3), 1);
  EXPECT_EQ(std::string(buf, 4), "/opx");
}

TEST_F(PidToProc, ProcessWithoutAnExecutableHasNone) {
  const pid_t zombie = kernel().fork();
  kernel().end(zombie);
  char buf[16];
  for (const pid_t pid : {zombie, kernel().start({}), 0, -1, INT_MAX}) {
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(pid_to_proc(pid, buf, sizeof buf), 0) << pid;
    EXPECT_STREQ(buf, "");
  }
}

TEST_F(PidToProc, WithoutRoomNothingIsWritten) {
  char untouched = 'x';
  EXPECT_EQ(pid_to_proc(kernel_s::SELF, &untouched, 0), 0);
  EXPECT_EQ(untouched, 'x');
}

// ---- names ----------------------------------------------------------------------------------

TEST_F(TovProcInTovdb, LastWordOfTheLineComesWithItsLineEnd) {
  write_list("/opt/a TOV_RESTART\n/opt/b -x TOV_SHELL_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").word, "TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/b").word, "TOV_SHELL_RESTART\n");
  EXPECT_EQ(look_up("/opt/b").found, 1);
  EXPECT_EQ(look_up("/opt/c").found, 0);
  EXPECT_EQ(look_up("/opt/c").word, "");
}

TEST_F(TovProcInTovdb, LastLineMayLackItsEnd) {
  write_list("/opt/a TOV_RESTART");
  EXPECT_EQ(look_up("/opt/a").word, "TOV_RESTART");
}

TEST_F(TovProcInTovdb, PartOfALongerPathMatches) {
  write_list("/usr/opt/abc TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").found, 1);
  EXPECT_EQ(look_up("RESTART").found, 1);
}

TEST_F(TovProcInTovdb, FirstMatchDecidesEvenWithoutABlank) {
  write_list("/opt/abc\n/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").found, 0);
  EXPECT_EQ(look_up("/opt/a").word, "");
  write_list("/opt/a\tTOV_RESTART\n");  // a tab is no blank
  EXPECT_EQ(look_up("/opt/a").found, 0);
}

TEST_F(TovProcInTovdb, BlankAtTheEndOfTheLineGivesItsLineEndOnly) {
  write_list("/opt/a TOV_RESTART \n");
  EXPECT_EQ(look_up("/opt/a").found, 1);
  EXPECT_EQ(look_up("/opt/a").word, "\n");
}

TEST_F(TovProcInTovdb, EmptyNameMatchesNothing) {
  write_list("/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("").found, 0);
  EXPECT_EQ(look_up("").word, "");
}

TEST_F(TovProcInTovdb, WordIsCutToTheBuffer) {
  write_list("/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a", 5).word, "TOV_");
  EXPECT_EQ(look_up("/opt/a", 1).word, "");
  EXPECT_EQ(look_up("/opt/a", 1).found, 1);
  char untouched = 'x';
  EXPECT_EQ(tov_proc_in_tovdb(LIST, "/opt/a", &untouched, 0), 0);
  EXPECT_EQ(untouched, 'x');
}

TEST_F(TovProcInTovdb, UnreadableListLeavesTheBufferAlone) {
  EXPECT_EQ(look_up("/opt/a", 3).word, "xxx");
  EXPECT_EQ(look_up("/opt/a", 3).found, 0);
}

TEST_F(TovProcInTovdb, WrongKindsOfFileAreEmpty) {
  kernel().make_fifo(LIST);
  EXPECT_EQ(look_up("/opt/a").found, 0);  // and does not wait for a writer
  kernel().remove(LIST);
  kernel().make_dir(LIST);
  EXPECT_EQ(look_up("/opt/a").found, 0);
}

TEST_F(TovProcInTovdb, LinkToAListIsFollowed) {
  kernel().write_file("/etc/real_list", "/opt/a TOV_RESTART\n");
  kernel().make_link(LIST, "real_list");
  EXPECT_EQ(look_up("/opt/a").found, 1);
}

TEST_F(TovProcInTovdb, LongLinesAreReadInPiecesOf1023Bytes) {
  const std::string pad(1000, 'p');
  // 1000 + 7 + 16 = 1023 bytes: all in the first piece.
  write_list(pad + "/opt/a " + std::string(16, 'w') + "second piece\n");
  EXPECT_EQ(look_up("/opt/a").word, std::string(16, 'w'));
  EXPECT_EQ(look_up("second").word, "piece\n");
  // The name lies across the border of two pieces.
  write_list(std::string(1020, 'p') + "/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").found, 0);
  EXPECT_EQ(look_up("t/a").word, "TOV_RESTART\n");
}

TEST_F(TovProcInTovdb, BytesBehindANulAreNotSeen) {
  write_list(std::string("/opt/a\0 /opt/b X\n/opt/c Y\n", 26));
  EXPECT_EQ(look_up("/opt/b").found, 0);
  EXPECT_EQ(look_up("/opt/a").found, 0);
  EXPECT_EQ(look_up("/opt/c").word, "Y\n");
}

TEST_F(TovProcInTovdb, ShortReadsMakeNoDifference) {
  write_list("/opt/a TOV_RESTART\n/opt/b -x TOV_SHELL_RESTART\n");
  for (const size_t limit : {1u, 2u, 7u, 20u}) {
    kernel().transfer_limit = limit;
    kernel().fail(tov_test::CALL_READ, 2, EINTR);
    EXPECT_EQ(look_up("/opt/b").word, "TOV_SHELL_RESTART\n") << limit;
  }
}

TEST_F(TovProcInTovdb, FailedReadEndsTheList) {
  write_list("/opt/a TOV_RESTART\n");
  const size_t before = kernel().descriptors();
  kernel().fail(tov_test::CALL_READ, 1, EIO);
  EXPECT_EQ(look_up("/opt/a").found, 0);
  EXPECT_EQ(kernel().descriptors(), before);
}

// ---- processes ------------------------------------------------------------------------------

TEST_F(TovPidInTovdb, ExecutableIsLookedUp) {
  write_list("/opt/foo TOV_RESTART\n");
  EXPECT_EQ(look_up_process(kernel().start({"/opt/foo", "-d"})), "1 TOV_RESTART\n");
  EXPECT_EQ(look_up_process(kernel().start({"/opt/bar"})), "0 ");
}

TEST_F(TovPidInTovdb, ProcessWithoutAnExecutableOpensNoList) {
  write_list("/opt/foo TOV_RESTART\n");
  EXPECT_EQ(look_up_process(4711), "0 untouched");
  EXPECT_EQ(kernel().calls(tov_test::CALL_OPEN), 0);
}

// ---- what the lines name --------------------------------------------------------------------

TEST_F(TovProcInTovdb, CommandsAreTheLinesWithoutTheirLastWords) {
  write_list(
      "/opt/a TOV_RESTART\n/opt/b -d  x   TOV_SHELL_RESTART\nwordless\n\n RESTART\n/opt/c R");
  EXPECT_EQ(tov_commands_in_tovdb(LIST),
            (std::vector<std::string>{"/opt/a", "/opt/b -d  x", "/opt/c"}));
  kernel().remove(LIST);
  EXPECT_TRUE(tov_commands_in_tovdb(LIST).empty());
}
