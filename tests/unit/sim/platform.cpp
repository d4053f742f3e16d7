// The functions of the platform layer over lists of texts. Formats are expanded as a real platform
// does it, so that a test compares what would be read on a device.
#include "tests/unit/sim/platform.h"

#include <stdarg.h>
#include <stdio.h>

#include <string>
#include <vector>

#include "client/tov_xtach.h"
#include "include/tov_registry.h"
#include "log/tov_log.h"
#include "platform/tov_platform.h"

using tov_test::platform;

namespace tov_test {

static constexpr size_t STAMP_LENGTH = 25;    // "2026-11-15 102541 004512 "
static constexpr size_t LINE_END_LENGTH = 2;  // CR LF

platform_s &platform() {
  static platform_s the_one;
  return the_one;
}

void reset_platform() {
  platform() = {};
  for (int type = 0; type < TOV_LOG_TYPE_NUM; type++)
    tov_logfile_info[type] = &platform().events[type];
}

}  // namespace tov_test

// A text without its line feed.
static std::string formatted(const char *format, va_list arguments) {
  char buf[8192];
  (void)vsnprintf(buf, sizeof buf, format, arguments);
  std::string text = buf;
  if (text.ends_with('\n')) text.pop_back();
  return text;
}

int psh_lib_common_init(void) {
  return 0;
}

int protect_selfhealing_do_action(int action, int pid, const char *module, const char *reason) {
  platform().requests.push_back(std::to_string(action) + " " + std::to_string(pid) + " " + module +
                                ": " + reason);
  return 0;
}

void protect_selfhealing_flush_buf_in_emergency(void) {}

int printk_syslog_ext(int level, const char *module, const char *mnemonic, int, const char *format,
                      ...) {
  va_list arguments;
  va_start(arguments, format);
  platform().notices.push_back("%" + std::string(module) + "-" + std::to_string(level) + "-" +
                               mnemonic + ": " + formatted(format, arguments));
  va_end(arguments);
  return 0;
}

void qx_syslog(int, const char *, ...) {}

int ras_logfile_init(const char *, int, void **, int, int) {
  return -1;
}

int ras_logfile_write_buf(void *handle, const char *data, int length) {
  const std::string line(data, static_cast<size_t>(length));
  auto *events = static_cast<std::vector<std::string> *>(handle);
  events->push_back(line.substr(tov_test::STAMP_LENGTH,
                                line.size() - tov_test::STAMP_LENGTH - tov_test::LINE_END_LENGTH));
  return length;
}

void ras_logfile_flush_buf_in_emergency(void *) {
  platform().flushes++;
}

int ras_remove_obsolete_files(const char *, const char *, int, int) {
  return 0;
}

bool qxconf_is_dorvik_product(void) {
  return platform().is_dorvik;
}

int fs_set_vsd_envs(int) {
  return 0;
}

int tov_register_third_part(pid_t pid, const char *type, const char *command) {
  platform().registered.push_back(std::to_string(pid) + " " + type);
  platform().registered_as.push_back(command);
  return 0;
}

int tov_get_semval(void) {
  return platform().semaphore;
}
