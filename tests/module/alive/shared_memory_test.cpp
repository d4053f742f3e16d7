// Record memory: making, sizing, mapping and removing a shared object, each step failing in turn.
#include "alive/shared_memory.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/support/in_child.h"

#if !defined(TOV_SANITIZE_THREAD)  // its runtime makes these calls before it is ready for ours
// Two calls of the C library that fail when a test wants that.
static constexpr long REAL_PAGE_SIZE = -77;
static long pretended_page_size = REAL_PAGE_SIZE;
static bool no_memory_for_names = false;

extern "C" long sysconf(int name) noexcept {
  using real_t = long (*)(int);
  static const auto real = reinterpret_cast<real_t>(dlsym(RTLD_NEXT, "sysconf"));
  if (name == _SC_PAGESIZE && pretended_page_size != REAL_PAGE_SIZE) return pretended_page_size;
  return real(name);
}

extern "C" char *strdup(const char *text) noexcept {
  const size_t size = strlen(text) + 1;
  void *const copy = no_memory_for_names ? nullptr : malloc(size);
  if (copy == nullptr) errno = ENOMEM;
  return copy == nullptr ? nullptr : static_cast<char *>(memcpy(copy, text, size));
}
#endif

namespace {

constexpr char NAME[] = "/tov-test-record";
constexpr char PATH[] = "/dev/shm/tov-test-record";

class RasOsRecordMemory : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(system("rm -rf /dev/shm/tov-test-record"), 0); }
  void TearDown() override {
    int ignored = 0;
    if (memory_.addr != nullptr) ras_os_close_record_memory(&memory_, &ignored);
    free(memory_.name);
  }

  ras_os_recordm_t memory_{};
  int err_ = 99;
};

off_t length_of(const char *path) {
  struct stat status {};
  return stat(path, &status) == 0 ? status.st_size : -1;
}

// A handle that must stay as it is.
const ras_os_recordm_t UNTOUCHED{nullptr, nullptr, 12345, -7, 0, 0};

}  // namespace

// ---- init ----------------------------------------------------------------------------------

TEST_F(RasOsRecordMemory, BadArgumentsAreRefused) {
  EXPECT_EQ(ras_os_init_record_memory(nullptr, 1, &memory_, &err_), -1);
  EXPECT_EQ(ras_os_init_record_memory(NAME, 0, &memory_, &err_), -1);
  EXPECT_EQ(ras_os_init_record_memory(NAME, 1, nullptr, &err_), -1);
  EXPECT_EQ(ras_os_init_record_memory(NAME, 1, &memory_, nullptr), -1);
  EXPECT_EQ(length_of(PATH), -1);
}

TEST_F(RasOsRecordMemory, ObjectIsSizedToWholePages) {
  const long page = sysconf(_SC_PAGESIZE);
  for (long size : {1L, page - 1, page, page + 1}) {
    ASSERT_EQ(ras_os_init_record_memory(NAME, static_cast<uint32_t>(size), &memory_, &err_), 0);
    EXPECT_EQ(err_, 0);
    EXPECT_EQ(memory_.size, size <= page ? page : 2 * page);
    EXPECT_EQ(length_of(PATH), static_cast<off_t>(memory_.size));
    ASSERT_EQ(ras_os_close_record_memory(&memory_, &err_), 0);
  }
}

TEST_F(RasOsRecordMemory, HandleOwnsACopyOfTheNameAndACloseOnExecDescriptor) {
  std::string name = NAME;
  ASSERT_EQ(ras_os_init_record_memory(name.c_str(), 10, &memory_, &err_), 0);
  name[1] = 'X';
  EXPECT_STREQ(memory_.name, NAME);
  EXPECT_EQ(fcntl(memory_.fd, F_GETFD), FD_CLOEXEC);
}

TEST_F(RasOsRecordMemory, ModeIsForEverybodyLessTheUmask) {
  const mode_t old = umask(027);
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  umask(old);
  struct stat status {};
  ASSERT_EQ(stat(PATH, &status), 0);
  EXPECT_EQ(status.st_mode & 07777u, 0750u);
}

TEST_F(RasOsRecordMemory, ExistingObjectKeepsItsContentAndGetsOurLength) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 100000, &memory_, &err_), 0);
  memcpy(memory_.addr, "content", 8);
  ras_os_recordm_t smaller{};
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &smaller, &err_), 0);
  EXPECT_STREQ(static_cast<char *>(smaller.addr), "content");
  EXPECT_EQ(length_of(PATH), static_cast<off_t>(smaller.size));
  ASSERT_EQ(ras_os_close_record_memory(&smaller, &err_), 0);
}

#if !defined(TOV_SANITIZE_THREAD)
TEST_F(RasOsRecordMemory, NameThatCannotBeKept) {
  ras_os_recordm_t handle = UNTOUCHED;
  no_memory_for_names = true;
  EXPECT_EQ(ras_os_init_record_memory(NAME, 10, &handle, &err_), -ESRCH);
  no_memory_for_names = false;
  EXPECT_EQ(handle.size, 12345u);
  EXPECT_EQ(length_of(PATH), -1) << "nothing was made";
}

TEST_F(RasOsRecordMemory, ObjectWithoutAKnownPageSizeIsRemoved) {
  ras_os_recordm_t handle = UNTOUCHED;
  for (const long size : {0L, -1L}) {
    pretended_page_size = size;
    EXPECT_EQ(ras_os_init_record_memory(NAME, 10, &handle, &err_), -EIO);
    pretended_page_size = REAL_PAGE_SIZE;
    EXPECT_EQ(handle.size, 12345u);
    EXPECT_EQ(length_of(PATH), -1);
  }
}
#endif

TEST_F(RasOsRecordMemory, ObjectThatCannotBeOpened) {
  ras_os_recordm_t handle = UNTOUCHED;
  EXPECT_EQ(ras_os_init_record_memory("/a/b", 10, &handle, &err_), -EINTR);
  EXPECT_EQ(err_, EINVAL);
  ASSERT_EQ(mkdir(PATH, 0777), 0);
  EXPECT_EQ(ras_os_init_record_memory(NAME, 10, &handle, &err_), -EINTR);
  EXPECT_EQ(err_, EINVAL);  // a directory, in the words of shm_open(3)
  ASSERT_EQ(rmdir(PATH), 0);
  ASSERT_EQ(symlink("/tmp/victim", PATH), 0);
  EXPECT_EQ(ras_os_init_record_memory(NAME, 10, &handle, &err_), -EINTR);
  EXPECT_EQ(err_, ELOOP);
  EXPECT_EQ(handle.size, 12345u);
  EXPECT_EQ(handle.fd, -7);
  EXPECT_EQ(handle.name, nullptr);
}

TEST_F(RasOsRecordMemory, ObjectThatCannotBeSizedIsRemoved) {
  tov_test::in_child([] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit page{4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &page), 0);
    ras_os_recordm_t handle = UNTOUCHED;
    int err = 0;
    EXPECT_EQ(ras_os_init_record_memory(NAME, 100000, &handle, &err), -EIO);
    EXPECT_EQ(err, EFBIG);
    EXPECT_EQ(handle.size, 12345u);
    EXPECT_EQ(length_of(PATH), -1);
  });
}

TEST_F(RasOsRecordMemory, SizeThatDoesNotFitTheHandleIsRefused) {
  ras_os_recordm_t handle = UNTOUCHED;
  EXPECT_EQ(ras_os_init_record_memory(NAME, UINT32_MAX, &handle, &err_), -EIO);
  EXPECT_EQ(err_, EFBIG);
  EXPECT_EQ(length_of(PATH), -1);
}

#if !defined(TOV_SANITIZE_ADDRESS) && !defined(TOV_SANITIZE_THREAD)  // they need the address space
TEST_F(RasOsRecordMemory, ObjectThatCannotBeMappedIsRemovedEvenIfItExisted) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  tov_test::in_child([] {
    const rlimit small{256u << 20, 256u << 20};
    ASSERT_EQ(setrlimit(RLIMIT_AS, &small), 0);
    ras_os_recordm_t handle = UNTOUCHED;
    int err = 0;
    EXPECT_EQ(ras_os_init_record_memory(NAME, 1u << 30, &handle, &err), -ENXIO);
    EXPECT_EQ(err, ENOMEM);
    EXPECT_EQ(handle.size, 12345u);
  });
  EXPECT_EQ(length_of(PATH), -1);
}
#endif

TEST_F(RasOsRecordMemory, FailuresLeaveNoDescriptor) {
  const int probe = open("/dev/null", O_RDONLY | O_CLOEXEC);
  close(probe);
  ras_os_recordm_t handle = UNTOUCHED;
  EXPECT_EQ(ras_os_init_record_memory(NAME, UINT32_MAX, &handle, &err_), -EIO);
  EXPECT_EQ(ras_os_init_record_memory("/a/b", 10, &handle, &err_), -EINTR);
  const int again = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(again, probe);
  close(again);
}

// ---- read and write ------------------------------------------------------------------------

TEST_F(RasOsRecordMemory, WhatIsWrittenIsMappedAndReadBack) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  const uint8_t in[5] = {1, 2, 3, 4, 5};
  uint8_t out[5] = {};
  err_ = 99;
  EXPECT_EQ(ras_os_write_record_memory(&memory_, in, sizeof in, &err_), 0);
  EXPECT_EQ(err_, 0);
  EXPECT_EQ(memcmp(memory_.addr, in, sizeof in), 0);
  EXPECT_EQ(ras_os_read_record_memory(&memory_, out, sizeof out), 0);
  EXPECT_EQ(memcmp(out, in, sizeof in), 0);
}

TEST_F(RasOsRecordMemory, LengthUpToTheMappedSizeIsAllowed) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  std::vector<uint8_t> bytes(memory_.size + 1, 7);
  EXPECT_EQ(ras_os_write_record_memory(&memory_, bytes.data(), memory_.size, &err_), 0);
  EXPECT_EQ(ras_os_read_record_memory(&memory_, bytes.data(), memory_.size), 0);
  EXPECT_EQ(ras_os_write_record_memory(&memory_, bytes.data(), memory_.size + 1, &err_), -1);
  EXPECT_EQ(ras_os_read_record_memory(&memory_, bytes.data(), memory_.size + 1), -1);
}

TEST_F(RasOsRecordMemory, ReadAndWriteRefuseBadArguments) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  uint8_t byte = 0;
  EXPECT_EQ(ras_os_read_record_memory(nullptr, &byte, 1), -1);
  EXPECT_EQ(ras_os_read_record_memory(&memory_, nullptr, 1), -1);
  EXPECT_EQ(ras_os_read_record_memory(&memory_, &byte, 0), -1);
  EXPECT_EQ(ras_os_write_record_memory(nullptr, &byte, 1, &err_), -1);
  EXPECT_EQ(ras_os_write_record_memory(&memory_, nullptr, 1, &err_), -1);
  EXPECT_EQ(ras_os_write_record_memory(&memory_, &byte, 1, nullptr), -1);
  EXPECT_EQ(ras_os_write_record_memory(&memory_, &byte, 0, &err_), -1);
}

TEST_F(RasOsRecordMemory, CutObjectReadsAsZeroesAndIsLengthenedByAWrite) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10000, &memory_, &err_), 0);
  memset(memory_.addr, 7, 10000);
  ASSERT_EQ(truncate(PATH, 3), 0);
  std::vector<uint8_t> bytes(10000, 9);
  EXPECT_EQ(ras_os_read_record_memory(&memory_, bytes.data(), 10000), 0);
  EXPECT_EQ(bytes[2], 7);
  EXPECT_EQ(bytes[3], 0);
  EXPECT_EQ(bytes[9999], 0);
  EXPECT_EQ(ras_os_write_record_memory(&memory_, bytes.data(), 10000, &err_), 0);
  EXPECT_EQ(length_of(PATH), 10000);
}

TEST_F(RasOsRecordMemory, RestoreGivesACutObjectItsLengthBack) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10000, &memory_, &err_), 0);
  EXPECT_EQ(ras_os_restore_record_memory(&memory_), 0);
  ASSERT_EQ(truncate(PATH, 0), 0);
  EXPECT_EQ(ras_os_restore_record_memory(&memory_), 0);
  EXPECT_EQ(length_of(PATH), static_cast<off_t>(memory_.size));
  ASSERT_EQ(truncate(PATH, 1 << 20), 0);  // longer is none of our business
  EXPECT_EQ(ras_os_restore_record_memory(&memory_), 0);
  EXPECT_EQ(length_of(PATH), 1 << 20);
}

TEST_F(RasOsRecordMemory, StrangersFileUnderOurNumberIsLeftAlone) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  memcpy(memory_.addr, "content", 8);
  close(memory_.fd);
  const int stranger = open("/tmp/stranger", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  ASSERT_EQ(stranger, memory_.fd);
  uint8_t out[8] = {};
  EXPECT_EQ(ras_os_read_record_memory(&memory_, out, sizeof out), 0);
  EXPECT_EQ(memcmp(out, "content", 8), 0);
  EXPECT_EQ(ras_os_write_record_memory(&memory_, out, 1, &err_), 0);
  EXPECT_EQ(ras_os_restore_record_memory(&memory_), -EBADF);
  EXPECT_EQ(ras_os_close_record_memory(&memory_, &err_), 0);
  EXPECT_EQ(length_of("/tmp/stranger"), 0);
  EXPECT_GE(fcntl(stranger, F_GETFD), 0);
  close(stranger);
}

// ---- close ---------------------------------------------------------------------------------

TEST_F(RasOsRecordMemory, CloseRemovesNameMappingAndDescriptor) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  const int fd = memory_.fd;
  EXPECT_EQ(ras_os_close_record_memory(&memory_, &err_), 0);
  EXPECT_EQ(err_, 0);
  EXPECT_EQ(length_of(PATH), -1);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1);
  EXPECT_EQ(memory_.name, nullptr);
  EXPECT_EQ(memory_.addr, nullptr);
}

TEST_F(RasOsRecordMemory, CloseRefusesNullArguments) {
  EXPECT_EQ(ras_os_close_record_memory(nullptr, &err_), -1);
  EXPECT_EQ(ras_os_close_record_memory(&memory_, nullptr), -1);
}

TEST_F(RasOsRecordMemory, CloseOfWhatCannotBeUnmappedDoesNothing) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  ras_os_recordm_t crooked = memory_;
  crooked.addr = static_cast<char *>(crooked.addr) + 1;
  EXPECT_EQ(ras_os_close_record_memory(&crooked, &err_), -E2BIG);
  EXPECT_EQ(err_, EINVAL);
  EXPECT_GE(length_of(PATH), 0);
}

TEST_F(RasOsRecordMemory, CloseKeepsANameThatCannotBeRemoved) {
  ASSERT_EQ(ras_os_init_record_memory(NAME, 10, &memory_, &err_), 0);
  ASSERT_EQ(unlink(PATH), 0);
  EXPECT_EQ(ras_os_close_record_memory(&memory_, &err_), -ENOEXEC);
  EXPECT_EQ(err_, ENOENT);
  EXPECT_STREQ(memory_.name, NAME);
  EXPECT_EQ(memory_.addr, nullptr);
}
