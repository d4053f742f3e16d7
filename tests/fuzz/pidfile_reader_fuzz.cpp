// The reader of registration files against arbitrary bytes: anybody may write such a file, and a
// restarted daemon runs as root what it finds there.
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "client/tov_pidfile.h"
#include "include/tov_registry.h"
#include "tests/fuzz/require.h"

namespace {

// A file of this run's own, removed at its end.
struct scratch_file_s {
  char path[32] = "/dev/shm/tov_fuzz.XXXXXX";  // in memory: rewritten for each input
  int fd = mkostemp(path, O_CLOEXEC);
  ~scratch_file_s() {
    unlink(path);
    close(fd);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static scratch_file_s file;
  require(file.fd >= 0 && ftruncate(file.fd, 0) == 0);
  require(pwrite(file.fd, data, size, 0) == static_cast<ssize_t>(size));

  static tov_pid_t record;
  static const tov_pid_t untouched = [] {
    tov_pid_t filled;
    memset(&filled, 0xAA, sizeof filled);
    return filled;
  }();
  memcpy(&record, &untouched, sizeof record);
  const int result = tov_read_pidfile(file.path, &record);

  require(result == 0 || result == -1);
  if (result != 0) {
    require(memcmp(&record, &untouched, sizeof record) == 0);
    return 0;
  }
  require(record.pid > 0);
  require(record.pathname[0] == '/');
  require(memchr(record.pathname, '\0', sizeof record.pathname) != nullptr);
  // The command line stands in the file as it was read, within the bytes that count.
  const std::string content(reinterpret_cast<const char *>(data), size < 256 ? size : 256);
  require(content.find(record.pathname) != std::string::npos);
  return 0;
}
