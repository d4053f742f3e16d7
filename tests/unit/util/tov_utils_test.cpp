// Sleeps, full-length transfers, whole files, locks, the openers; numbers and texts.
#include "util/tov_utils.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "tests/unit/sim/kernel.h"
#include "tests/unit/simulated.h"

using tov_test::kernel;
using tov_test::kernel_s;

static constexpr int64_t US_PER_S = 1'000'000;

namespace {

class TovUtilsSleep : public tov_test::Simulated {};
class TovUtilsTransfer : public tov_test::Simulated {
 protected:
  TovUtilsTransfer() { kernel().write_file("/tmp/f", "onetwothree"); }
  static tov_fd_t opened() { return tov_fd_t(tov_open_regular("/tmp/f", O_RDWR)); }
};
class TovUtilsReadToBuf : public tov_test::Simulated {};
class TovUtilsLock : public tov_test::Simulated {};
class TovUtilsOpenRegular : public tov_test::Simulated {};
class TovUtilsClearPlace : public tov_test::Simulated {};

}  // namespace

// ---- sleeping -------------------------------------------------------------------------------

TEST_F(TovUtilsSleep, SpanIsSecondsAndMicroseconds) {
  EXPECT_EQ(span_us([] { safe_sleep_common(3, 250'000); }), 3 * US_PER_S + 250'000);
  EXPECT_EQ(span_us([] { safe_sleep(2); }), 2 * US_PER_S);
  EXPECT_EQ(span_us([] { safe_usleep(700); }), 700);
}

TEST_F(TovUtilsSleep, SignalsDoNotShortenIt) {
  for (int64_t at_us = 3'000; at_us < 5 * US_PER_S; at_us += 300'000)
    kernel().interrupt_after(at_us);
  EXPECT_EQ(span_us([] { safe_sleep(5); }), 5 * US_PER_S);
  EXPECT_EQ(kernel().calls(tov_test::CALL_SLEEP), 18);
}

TEST_F(TovUtilsSleep, WhatAHandlerSleepsIsNoPartOfIt) {
  kernel().on_alarm = [](int) { safe_sleep(1); };
  kernel().set_alarm(2);
  EXPECT_EQ(span_us([] { safe_sleep(5); }), 6 * US_PER_S);
}

TEST_F(TovUtilsSleep, RefusedTimeEndsItAtOnce) {
  EXPECT_EQ(span_us([] { safe_sleep(-5); }), 0);
  EXPECT_EQ(kernel().calls(tov_test::CALL_SLEEP), 1);
}

// ---- full-length transfers ------------------------------------------------------------------

TEST_F(TovUtilsTransfer, ShortReadsAreResumedToTheEndOfTheFile) {
  kernel().transfer_limit = 2;
  const tov_fd_t fd = opened();
  char buf[32];
  EXPECT_EQ(safe_read(fd.n, buf, sizeof buf), 11);
  EXPECT_EQ(std::string(buf, 11), "onetwothree");
  EXPECT_EQ(kernel().calls(tov_test::CALL_READ), 7);
}

TEST_F(TovUtilsTransfer, ReadStopsWhenAllThatWasAskedIsThere) {
  kernel().transfer_limit = 3;
  const tov_fd_t fd = opened();
  char buf[6];
  EXPECT_EQ(safe_read(fd.n, buf, sizeof buf), 6);
  EXPECT_EQ(kernel().calls(tov_test::CALL_READ), 2);
}

TEST_F(TovUtilsTransfer, InterruptedCallsAreMadeAgain) {
  kernel().transfer_limit = 4;
  const tov_fd_t fd = opened();
  for (const int nth : {1, 3})
    kernel().fail(tov_test::CALL_READ, nth, EINTR);
  kernel().fail(tov_test::CALL_WRITE, 2, EINTR);
  char buf[11];
  EXPECT_EQ(safe_read(fd.n, buf, sizeof buf), 11);
  EXPECT_EQ(safe_write(fd.n, "fourfive", 8), 8);
  EXPECT_EQ(kernel().text_of("/tmp/f"), "onetwothreefourfive");
}

TEST_F(TovUtilsTransfer, ErrorForgetsWhatCameBefore) {
  kernel().transfer_limit = 3;
  const tov_fd_t fd = opened();
  char buf[11];
  kernel().fail(tov_test::CALL_READ, 2, EIO);
  EXPECT_EQ(safe_read(fd.n, buf, sizeof buf), -1);
  EXPECT_EQ(errno, EIO);
  kernel().fail(tov_test::CALL_WRITE, 2, ENOSPC);
  EXPECT_EQ(safe_write(fd.n, buf, sizeof buf), -1);
  EXPECT_EQ(errno, ENOSPC);
}

TEST_F(TovUtilsTransfer, NothingAskedMeansNoCall) {
  EXPECT_EQ(safe_read(-1, nullptr, 0), 0);
  EXPECT_EQ(safe_write(-1, nullptr, 0), 0);
  EXPECT_EQ(kernel().calls(), 0);
}

TEST_F(TovUtilsTransfer, BadDescriptorIsAnError) {
  char buf[1] = {};
  EXPECT_EQ(safe_read(-1, buf, 1), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(safe_write(-1, buf, 1), -1);
  EXPECT_EQ(errno, EBADF);
}

// ---- whole files ----------------------------------------------------------------------------

TEST_F(TovUtilsReadToBuf, ReadsAndTerminates) {
  kernel().write_file("/tmp/f", "hello");
  char buf[16];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(tov_read_to_buf("/tmp/f", buf, sizeof buf), 5);
  EXPECT_STREQ(buf, "hello");
  EXPECT_EQ(tov_read_to_buf("/tmp/f", buf, 4), 3);
  EXPECT_STREQ(buf, "hel");
}

TEST_F(TovUtilsReadToBuf, RoomForTheTerminatorAlone) {
  kernel().write_file("/tmp/f", "hello");
  char buf[2] = {'x', 'y'};
  EXPECT_EQ(tov_read_to_buf("/tmp/f", buf, 1), 0);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], 'y');
  EXPECT_EQ(tov_read_to_buf("/tmp/f", buf + 1, 0), -1);
  EXPECT_EQ(buf[1], 'y');
}

TEST_F(TovUtilsReadToBuf, FailuresLeaveAnEmptyTextAndNoDescriptor) {
  const size_t before = kernel().descriptors();
  const struct {
    const char *path;
    int error;
  } cases[] = {{"/tmp/missing", ENOENT}, {"/tmp", EISDIR}};
  for (const auto &c : cases) {
    char buf[4] = "old";
    EXPECT_EQ(tov_read_to_buf(c.path, buf, sizeof buf), -1);
    EXPECT_EQ(errno, c.error) << c.path;
    EXPECT_STREQ(buf, "");
  }
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovUtilsReadToBuf, FifoReadsAsEmptyWithoutWaiting) {
  kernel().make_fifo("/tmp/fifo");
  char buf[4] = "old";
  EXPECT_EQ(tov_read_to_buf("/tmp/fifo", buf, sizeof buf), 0);
  EXPECT_STREQ(buf, "");
}

// ---- locks ----------------------------------------------------------------------------------

TEST_F(TovUtilsLock, AnotherProcessesLockIsRefusedAtOnce) {
  const pid_t other = kernel().start({"/bin/x"});
  kernel().write_file("/tmp/f", "");
  kernel().lock("/tmp/f", other);
  const tov_fd_t fd(tov_open_regular("/tmp/f", O_RDWR));
  EXPECT_EQ(lock_file(fd.n), -1);
  EXPECT_EQ(errno, EAGAIN);
  kernel().end(other);
  EXPECT_EQ(lock_file(fd.n), 0);
}

TEST_F(TovUtilsLock, PidFileHoldsTheIdAndOneNul) {
  kernel().write_file("/tmp/pid", "something much longer than a number");
  const tov_fd_t fd(already_running("/tmp/pid"));
  ASSERT_GE(fd.n, 0);
  EXPECT_EQ(kernel().text_of("/tmp/pid"), std::to_string(kernel_s::SELF) + std::string(1, '\0'));
  EXPECT_EQ(kernel().lock_holder("/tmp/pid"), kernel_s::SELF);
}

TEST_F(TovUtilsLock, PidFileIsMadeForTheOwnerAlone) {
  kernel().umask = 0;
  const tov_fd_t fd(already_running("/tmp/pid"));
  EXPECT_EQ(kernel().mode_of("/tmp/pid"), 0700u);
}

TEST_F(TovUtilsLock, SecondInstanceIsRefusedAndTheFirstIdStays) {
  const pid_t first = kernel().start({"/usr/sbin/under_test"});
  kernel().write_file("/tmp/pid", "first");
  kernel().lock("/tmp/pid", first);
  const size_t before = kernel().descriptors();
  EXPECT_EQ(already_running("/tmp/pid"), -1);
  EXPECT_EQ(kernel().text_of("/tmp/pid"), "first");
  EXPECT_EQ(kernel().lock_holder("/tmp/pid"), first);
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovUtilsLock, FullDiskIsNoReasonToRefuse) {
  kernel().fail(tov_test::CALL_WRITE, 1, ENOSPC);
  EXPECT_GE(tov_fd_t(already_running("/tmp/pid")).n, 0);
  kernel().fail(tov_test::CALL_FTRUNCATE, 1, EIO);
  EXPECT_GE(tov_fd_t(already_running("/tmp/pid")).n, 0);
}

// ---- opening regular files ------------------------------------------------------------------

TEST_F(TovUtilsOpenRegular, AnythingElseIsRefusedWithoutWaiting) {
  kernel().make_fifo("/tmp/fifo");
  kernel().write_file("/tmp/target", "");
  kernel().make_link("/tmp/link", "target");
  const struct {
    const char *path;
    int flags, error;
  } cases[] = {
      {"/tmp/fifo", O_RDONLY, EINVAL},
      {"/tmp/fifo", O_WRONLY, ENXIO},
      {"/tmp/fifo", O_RDWR, EINVAL},
      {"/tmp/link", O_RDONLY, ELOOP},
      {"/tmp", O_RDONLY, EINVAL},
      {"/tmp", O_RDWR, EISDIR},
      {"/dev/console", O_RDONLY, EINVAL},
      {"/tmp/missing", O_RDONLY, ENOENT},
      {"/tmp/none/below", O_RDONLY, ENOENT},
  };
  const size_t before = kernel().descriptors();
  for (const auto &c : cases) {
    errno = 0;
    EXPECT_EQ(tov_open_regular(c.path, c.flags), -c.error) << c.path;
    EXPECT_EQ(errno, c.error) << c.path << " " << c.flags;
  }
  EXPECT_EQ(kernel().descriptors(), before);
}

TEST_F(TovUtilsOpenRegular, NumberLiesAboveTheStandardStreams) {
  kernel().close_standard_streams();
  const tov_fd_t fd(tov_open_regular("/tmp/f", O_RDWR | O_CREAT, 0644));
  EXPECT_GT(fd.n, 2);
  EXPECT_EQ(kernel().descriptors(), 1u);
  EXPECT_EQ(kernel().inherited_descriptors(), 0u);
}

TEST_F(TovUtilsOpenRegular, EveryCallMayFailAndLeavesNoDescriptor) {
  kernel().close_standard_streams();
  const int before = kernel().calls();
  tov_fd_t(tov_open_regular("/tmp/f", O_RDWR | O_CREAT, 0644)).reset();
  const int calls = kernel().calls() - before - 1;  // without the close at the end
  ASSERT_GE(calls, 4);
  for (int nth = 1; nth <= calls; nth++) {
    kernel().fail_any(nth, EIO);
    tov_fd_t fd(tov_open_regular("/tmp/f", O_RDWR | O_CREAT, 0644));
    fd.reset();
    EXPECT_EQ(kernel().descriptors(), 0u) << nth;
  }
}

TEST_F(TovUtilsClearPlace, EverythingButARegularFileMakesWay) {
  kernel().write_file("/tmp/target", "keep");
  kernel().make_link("/tmp/link", "target");
  kernel().make_fifo("/tmp/fifo");
  kernel().make_dir("/tmp/empty");
  kernel().make_dir("/tmp/full/below");
  for (const char *path : {"/tmp/link", "/tmp/fifo", "/tmp/empty"}) {
    EXPECT_TRUE(tov_clear_file_place(path)) << path;
    EXPECT_FALSE(kernel().exists(path)) << path;
  }
  for (const char *path : {"/tmp/target", "/tmp/full", "/tmp/none"})
    EXPECT_FALSE(tov_clear_file_place(path)) << path;
  EXPECT_EQ(kernel().text_of("/tmp/target"), "keep");
}

// ---- numbers and lengths --------------------------------------------------------------------

TEST(TovUtilsNumber, OrdinaryTextReadsAsAtoi) {
  for (const char *text : {"0", "42", " \t\n42", "-7", "+7", "007", "12abc", "12 34", "- 3", "",
                           "abc", "0x10", "2147483647", "-2147483648", "delete_vsd", "--1"})
    EXPECT_EQ(tov_atoi(text), atoi(text)) << text;
}

TEST(TovUtilsNumber, OverflowGivesTheNearestEnd) {
  EXPECT_EQ(tov_atoi("2147483648"), INT_MAX);
  EXPECT_EQ(tov_atoi("4294967297"), INT_MAX);
  EXPECT_EQ(tov_atoi("99999999999999999999999"), INT_MAX);
  EXPECT_EQ(tov_atoi("-2147483649"), INT_MIN);
  EXPECT_EQ(tov_atoi("-99999999999999999999999"), INT_MIN);
}

TEST(TovUtilsNumber, NoNumberIsToldApartFromZero) {
  int number = 5;
  EXPECT_FALSE(tov_parse_int("x", &number));
  EXPECT_FALSE(tov_parse_int(" - 1", &number));
  EXPECT_EQ(number, 5);
  errno = 7;
  EXPECT_TRUE(tov_parse_int("99999999999999999999999", &number));
  EXPECT_EQ(errno, 7);
  EXPECT_EQ(number, INT_MAX);
}

TEST(TovUtilsNumber, PrintedLengthIsTheCutOne) {
  EXPECT_EQ(tov_printed(3, 10), 3u);
  EXPECT_EQ(tov_printed(9, 10), 9u);
  EXPECT_EQ(tov_printed(10, 10), 9u);
  EXPECT_EQ(tov_printed(500, 1), 0u);
  EXPECT_EQ(tov_printed(-1, 10), 0u);
}

TEST(TovUtilsNumber, AppendedTextStaysWithinItsLimit) {
  char buf[] = "ab######";
  EXPECT_EQ(tov_append(buf, 2, 6, "cd"), 4u);
  EXPECT_EQ(tov_append(buf, 4, 6, "efgh"), 6u);
  EXPECT_EQ(tov_append(buf, 6, 6, "x"), 6u);
  EXPECT_EQ(tov_append(buf, 6, 8, ""), 6u);
  EXPECT_STREQ(buf, "abcdef##");
}

// ---- trimming -------------------------------------------------------------------------------

TEST(TovUtilsRtrim, OnlyTrailingBlanksAndTabsGo) {
  const struct {
    const char *before, *after;
  } cases[] = {{"abc \t ", "abc"}, {" a b ", " a b"}, {"abc\n", "abc\n"}, {"abc \r", "abc \r"},
               {" \t", ""},        {"", ""},          {"abc", "abc"}};
  for (const auto &c : cases) {
    char text[16];
    snprintf(text, sizeof text, "%s", c.before);
    rtrim(text);
    EXPECT_STREQ(text, c.after);
  }
}
