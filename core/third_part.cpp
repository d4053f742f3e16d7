// The list is written anew from one file a program. A file that cannot be read costs its own line
// and no other.
// Losses: text behind the 1023rd byte of a file.
#include "core/third_part.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/entries.h"
#include "util/owner.h"
#include "util/tov_utils.h"

enum {
  LINE_SIZE = 1024,
  PATH_SIZE = 1024,
};

static void copy_entry(FILE *list, const char *name) {
  char path[PATH_SIZE];
  (void)snprintf(path, sizeof path, "%s/%s", TOV_THIRD_PART_DIR, name);
  char line[LINE_SIZE] = {};
  const int length = tov_read_to_buf(path, line, sizeof line);
  if (length < 0) {
    TOV_DBG("tov_read_file_string failed, ret = %d, reason: %s\n", length, strerror(errno));
    return;
  }
  (void)fprintf(list, "%s\n", line);
}

void tov_third_part_proc_init(void) {
  const tov_file_t list(fopen(TOV_THIRD_PART_LIST, "we"));
  if (!list) {
    TOV_DBG("fopen failed, reason: %s\n", strerror(errno));
    return;
  }
  tov_entries_t entries(TOV_THIRD_PART_DIR);
  if (!entries) {
    TOV_DBG("opendir failed, reason: %s\n", strerror(errno));
    return;
  }
  while (const char *name = entries.next())
    copy_entry(list.get(), name);
  (void)fflush(list.get());
}
