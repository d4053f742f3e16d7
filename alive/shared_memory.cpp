// Making, mapping and removing record memory.
//
// Threads: any; no state beside the caller's handle. Losses: what was written behind the end of an
// object that is cut.
#include "alive/shared_memory.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include "util/owner.h"
#include "util/regular_file.h"

enum { MODE_EVERYBODY = 0777 };  // less the umask

static int open_or_make(const char *name) {
  return tov_open_or_make(
      [name](int more_flags) { return shm_open(name, O_RDWR | more_flags, MODE_EVERYBODY); });
}

// `size` up to whole pages; 0 when that is unknown or does not fit the handle.
static uint32_t whole_pages(uint32_t size) {
  const long page = sysconf(_SC_PAGESIZE);
  if (page <= 0) return 0;
  const uint64_t page_bytes = static_cast<uint64_t>(page);
  const uint64_t rounded = (size + page_bytes - 1) / page_bytes * page_bytes;
  if (rounded <= UINT32_MAX) return static_cast<uint32_t>(rounded);
  errno = EFBIG;
  return 0;
}

// Sizes and maps the object behind `made->fd`. Returns 0, -EIO or -ENXIO with errno.
static int size_and_map(uint32_t size, ras_os_recordm_t *made) {
  struct stat status {};
  made->size = whole_pages(size);
  if (made->size == 0 || ftruncate(made->fd, made->size) < 0) return -EIO;
  if (fstat(made->fd, &status) < 0) return -EIO;
  made->dev = status.st_dev;
  made->ino = status.st_ino;
  made->addr = mmap(nullptr, made->size, PROT_READ | PROT_WRITE, MAP_SHARED, made->fd, 0);
  return made->addr == MAP_FAILED ? -ENXIO : 0;
}

int ras_os_init_record_memory(const char *name, uint32_t size, ras_os_recordm_t *recordm,
                              int *err) {
  if (name == nullptr || recordm == nullptr || err == nullptr || size == 0) return -1;
  *err = 0;
  ras_os_recordm_t made{};
  made.name = strdup(name);
  if (made.name == nullptr) return -ESRCH;

  tov_fd_t fd(tov_fd_above_streams(open_or_make(name)));  // shm_open() sets close-on-exec
  int result = -EINTR;
  if (fd.n >= 0) {
    made.fd = fd.n;
    result = size_and_map(size, &made);
  }
  if (result == 0) {
    (void)tov_fd_take(fd);
    *recordm = made;
    return 0;
  }
  *err = errno;
  if (fd.n >= 0) (void)shm_unlink(name);  // unmapped it is of no use
  free(made.name);
  return result;
}

// Whether the descriptor still is the object; its length is in `status` then.
static bool descriptor_is_ours(const ras_os_recordm_t *recordm, struct stat *status) {
  return fstat(recordm->fd, status) == 0 && status->st_dev == recordm->dev &&
         status->st_ino == recordm->ino;
}

int ras_os_restore_record_memory(const ras_os_recordm_t *recordm) {
  struct stat status {};
  if (!descriptor_is_ours(recordm, &status)) return -EBADF;
  if (status.st_size >= static_cast<off_t>(recordm->size)) return 0;
  return ftruncate(recordm->fd, recordm->size) < 0 ? -EIO : 0;
}

// Reads `len` bytes from the start of a file, zeroes behind its end. Returns 0, or -1 with errno.
static int read_start(int fd, uint8_t *buf, uint32_t len) {
  memset(buf, 0, len);
  for (uint32_t done = 0; done < len;) {
    const ssize_t count = pread(fd, buf + done, len - done, done);
    if (count == 0) return 0;
    if (count < 0 && errno != EINTR) return -1;
    if (count > 0) done += static_cast<uint32_t>(count);
  }
  return 0;
}

// Writes `len` bytes to the start of a file. Returns 0, or -1 with errno.
static int write_start(int fd, const uint8_t *buf, uint32_t len) {
  for (uint32_t done = 0; done < len;) {
    const ssize_t count = pwrite(fd, buf + done, len - done, done);
    if (count < 0 && errno != EINTR) return -1;
    if (count > 0) done += static_cast<uint32_t>(count);
  }
  return 0;
}

int ras_os_read_record_memory(const ras_os_recordm_t *recordm, uint8_t *buf, uint32_t len) {
  if (recordm == nullptr || buf == nullptr || len == 0 || len > recordm->size) return -1;
  struct stat status {};
  if (descriptor_is_ours(recordm, &status)) return read_start(recordm->fd, buf, len);
  memcpy(buf, recordm->addr, len);
  return 0;
}

int ras_os_write_record_memory(ras_os_recordm_t *recordm, const uint8_t *buf, uint32_t len,
                               int *err) {
  if (recordm == nullptr || buf == nullptr || err == nullptr) return -1;
  if (len == 0 || len > recordm->size) return -1;
  *err = 0;
  struct stat status {};
  if (!descriptor_is_ours(recordm, &status)) {
    memcpy(recordm->addr, buf, len);
    return 0;
  }
  const int result = write_start(recordm->fd, buf, len);
  if (result < 0) *err = errno;
  return result;
}

int ras_os_close_record_memory(ras_os_recordm_t *recordm, int *err) {
  if (recordm == nullptr || err == nullptr) return -1;
  *err = 0;
  if (munmap(recordm->addr, recordm->size) < 0) {
    *err = errno;
    return -E2BIG;
  }
  struct stat status {};
  if (descriptor_is_ours(recordm, &status)) close(recordm->fd);
  recordm->addr = nullptr;
  recordm->fd = -1;
  if (recordm->name == nullptr || shm_unlink(recordm->name) < 0) {
    *err = recordm->name == nullptr ? EINVAL : errno;
    return -ENOEXEC;
  }
  free(recordm->name);
  *recordm = ras_os_recordm_t{};
  recordm->fd = -1;
  return 0;
}
