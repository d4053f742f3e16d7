// Close-on-exec flag and the hex dump of messages.
#include "alive/tov_ras_os.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "tests/support/stdout.h"
#include "util/owner.h"

using tov_test::printed_by;

static const std::string HEAD =
    " Offset  |  0  1  2  3  4  5  6  7  8  9  A  B  C  D  E  F | 0123456789ABCDEF\n"
    "---------+-------------------------------------------------+-----------------\n";
static const std::string RULE =
    "---------+-------------------------------------------------+-----------------\n";

static std::string dump(const char *prefix, const void *message, unsigned int len) {
  return printed_by([=] { ras_os_dump_msg(prefix, message, len); });
}

static std::string title(const void *message, unsigned int len) {
  char text[80];
  snprintf(text, sizeof text, "dump test msg(addr:%p, len:%u):\n", message, len);
  return text;
}

TEST(TovRasOsCloseOnExec, FlagIsSetOnce) {
  const tov_fd_t fd(dup(STDIN_FILENO));
  ASSERT_EQ(fcntl(fd.n, F_GETFD), 0);
  EXPECT_EQ(ras_os_set_fd_close_on_exec(fd.n), 0);
  EXPECT_EQ(fcntl(fd.n, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(ras_os_set_fd_close_on_exec(fd.n), 0);
  EXPECT_EQ(fcntl(fd.n, F_GETFD), FD_CLOEXEC);
}

TEST(TovRasOsCloseOnExec, BadDescriptorsAreRefused) {
  errno = 0;
  EXPECT_EQ(ras_os_set_fd_close_on_exec(-1), -1);
  EXPECT_EQ(errno, EBADF);
  const int closed = dup(STDIN_FILENO);
  close(closed);
  EXPECT_EQ(ras_os_set_fd_close_on_exec(closed), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(TovRasOsDump, PartialLineIsPaddedToFullWidth) {
  const std::string message = std::string("\x00\x01 Az\x7f\xff", 7) + "789abcdef" + "QRST";
  ASSERT_EQ(message.size(), 20u);
  EXPECT_EQ(dump("test", message.data(), 20),
            title(message.data(), 20) + HEAD +
                "00000000 | 00 01 20 41 7A 7F FF 37 38 39 61 62 63 64 65 66 | ...Az..789abcdef\n"
                "00000010 | 51 52 53 54                                     | QRST\n" +
                RULE);
}

TEST(TovRasOsDump, FullLinesHaveNoPartialOne) {
  const std::string message(32, '0');
  EXPECT_EQ(dump("test", message.data(), 32),
            title(message.data(), 32) + HEAD +
                "00000000 | 30 30 30 30 30 30 30 30 30 30 30 30 30 30 30 30 | 0000000000000000\n"
                "00000010 | 30 30 30 30 30 30 30 30 30 30 30 30 30 30 30 30 | 0000000000000000\n" +
                RULE);
}

TEST(TovRasOsDump, OneByte) {
  EXPECT_EQ(dump("test", "x", 1),
            title("x", 1) + HEAD +
                "00000000 | 78                                              | x\n" + RULE);
}

TEST(TovRasOsDump, ColumnsStandUnderTheirHeadings) {
  const std::string text = dump("test", "0123456789ABCDEF", 16);
  const size_t head = text.find(" Offset");
  const size_t line = text.find("00000000 |");
  ASSERT_NE(head, std::string::npos);
  ASSERT_NE(line, std::string::npos);
  const std::string heading = text.substr(head, text.find('\n', head) - head);
  const std::string bytes = text.substr(line, text.find('\n', line) - line);
  EXPECT_EQ(heading.size(), bytes.size());
  EXPECT_EQ(bytes.find("33"), heading.find(" 3"));            // the last digit under its column
  EXPECT_EQ(bytes.rfind("| 0123"), heading.rfind("| 0123"));  // the characters likewise
}

TEST(TovRasOsDump, NothingToDumpIsSaid) {
  char expected[80];
  snprintf(expected, sizeof expected, "argument err(prx:(nil), msg:%p, len4)!\n",
           static_cast<const void *>(expected));
  EXPECT_EQ(dump(nullptr, expected, 4), expected);

  const char *prefix = "test";
  snprintf(expected, sizeof expected, "argument err(prx:%p, msg:(nil), len4)!\n",
           static_cast<const void *>(prefix));
  EXPECT_EQ(dump(prefix, nullptr, 4), expected);

  snprintf(expected, sizeof expected, "argument err(prx:%p, msg:%p, len0)!\n",
           static_cast<const void *>(prefix), static_cast<const void *>(prefix));
  EXPECT_EQ(dump(prefix, prefix, 0), expected);
}
