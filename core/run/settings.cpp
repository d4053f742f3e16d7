// A file is read into a buffer on the stack, without a stream, and its numbers are parsed there.
// Losses: text behind the 255th byte.
#include "core/run/settings.h"

#include <stdio.h>

#include "util/tov_utils.h"

enum { CONFIG_SIZE = 256 };

// sscanf on purpose: what counts as a number is what "%d" takes, as operators know it. A number
// beyond the range of int is cut by it, never trapped.
int tov_get_config_value(const char *path, int *first, int *second) {
  char text[CONFIG_SIZE];
  if (tov_read_to_buf(path, text, sizeof text) < 0) return -1;
  return sscanf(text, "%d %d", first, second) == 2 ? 0 : -1;
}

int tov_get_file_config(const char *path, int *value) {
  char text[CONFIG_SIZE];
  if (tov_read_to_buf(path, text, sizeof text) < 0) return -1;
  return sscanf(text, "%d", value) == 1 ? 0 : -1;
}
