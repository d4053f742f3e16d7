// Product question and device environment on stock Linux.
//
// The environment of a virtual device is set in a child between fork and exec of a threaded
// daemon, where the heap and the lock behind setenv(3) may be held for ever by a thread that does
// not exist in the child. So the variables' texts and the array that replaces `environ` are static
// storage of this file, and nothing is called but plain text functions.
//
// Threads: fs_set_vsd_envs() has a single writer: a forked child, or the command-line tool, which
// has one thread. The daemon itself never calls it.
#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <unistd.h>

#include <iterator>

#include "include/tov_ras_comp_config.h"
#include "platform/tov_platform.h"

static constexpr const char *DORVIK_MARKER = "/etc/tov/dorvik";
static constexpr int LAST_VSD = 16;
static constexpr size_t MAX_ENTRIES = 4096;
static constexpr size_t VARIABLE_SIZE = 64;

bool qxconf_is_dorvik_product(void) {
  return access(DORVIK_MARKER, F_OK) == 0;
}

// ---- device environment ---------------------------------------------------------------------

// Not DATA_QXOS_DIR2: the second data tree is set where a device is created and where a member is
// started again, and a program that joins a device is to do without it.
static constexpr struct {
  const char *name;          // with its "="
  const char *value_format;  // "%d": the device
} variables[] = {
    {"QX_CFG_DIR=", TOV_VSD_QX_CFG_DIR_FMT},
    {"QXOS_DIR=", TOV_VSD_QXOS_DIR_FMT},
    {"DATA_QXOS_DIR=", TOV_VSD_DATA_DIR_FMT},
    {"TMPDIR=", TOV_VSD_DIR_FMT},
};
static constexpr size_t VARIABLE_NUM = std::size(variables);

// Own storage: `environ` points into it after a successful call.
static char variable_texts[VARIABLE_NUM][VARIABLE_SIZE];
static char *own_environ[MAX_ENTRIES + VARIABLE_NUM + 1];

// Writes "NAME=value" with the device in the place of "%d". The formats are ours and short, the
// device has two digits at most: VARIABLE_SIZE holds every result. Not snprintf(), which is not
// async-signal-safe.
static void write_variable(char *to, const char *name, const char *format, int vsd_no) {
  to = stpcpy(to, name);
  for (; *format != '\0'; format++) {
    if (format[0] != '%') {
      *to++ = *format;
      continue;
    }
    format++;  // the "d"
    if (vsd_no >= 10) *to++ = static_cast<char>('0' + vsd_no / 10);
    *to++ = static_cast<char>('0' + vsd_no % 10);
  }
  *to = '\0';
}

// Does the environment entry belong to one of the variables?
static bool is_replaced(const char *entry) {
  for (const auto &variable : variables)
    if (strncmp(entry, variable.name, strlen(variable.name)) == 0) return true;
  return false;
}

int fs_set_vsd_envs(int vsd_no) {
  if (vsd_no < 0 || vsd_no > LAST_VSD) {
    errno = EINVAL;
    return -1;
  }
  size_t kept = 0;
  for (char **entry = environ; entry != nullptr && *entry != nullptr; entry++)
    if (!is_replaced(*entry)) kept++;
  if (kept > MAX_ENTRIES) {
    errno = ENOMEM;
    return -1;
  }

  // On a second call `environ` is our own array: entries only move towards its front, so reading
  // stays ahead of writing.
  size_t filled = 0;
  for (char **entry = environ; entry != nullptr && *entry != nullptr; entry++)
    if (!is_replaced(*entry)) own_environ[filled++] = *entry;
  for (size_t i = 0; i < VARIABLE_NUM; i++) {
    write_variable(variable_texts[i], variables[i].name, variables[i].value_format, vsd_no);
    own_environ[filled++] = variable_texts[i];
  }
  own_environ[filled] = nullptr;
  environ = own_environ;
  return 0;
}
