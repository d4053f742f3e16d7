// The name is cut out of the command line; the record keeps the whole of it.
#include "proc/task_name.h"

#include <stdio.h>
#include <string.h>

#include "include/tov_registry.h"
#include "util/tov_utils.h"

tov_task_name_s::tov_task_name_s(const tov_pid_t &record) {
  const char *slash = strrchr(record.process, '/');
  (void)snprintf(text, sizeof text, "%s", slash != nullptr ? slash + 1 : record.process);
  rtrim(text);
}
