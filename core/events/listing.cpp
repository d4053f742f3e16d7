// Where the list cannot be watched, or not be read for want of descriptors, everybody can be
// listed: the event handler asks each time.
//
// Tested by: tests/module/core/events/listing_test.cpp, tests/device/strangers_test.cpp
#include "core/events/listing.h"

#include <string.h>
#include <sys/types.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "include/tov_ras_comp_config.h"
#include "util/list_file.h"

enum { EXE_PATH_SIZE = 1024 };

tov_listing_s::tov_listing_s() : watch_(TOV_THIRD_PART_LIST) {}

void tov_listing_s::refresh() {
  if (!watch_.may_have_changed() && is_known_) return;
  lines_.clear();
  is_known_ = watch_.is_seen();
  if (is_known_) {
    auto lines = tov_lines_in_tovdb(TOV_THIRD_PART_LIST);
    is_known_ = lines.has_value();
    if (lines) lines_ = std::move(*lines);
  }
  is_any_ = !is_known_ || !lines_.empty();
}

bool tov_listing_s::may_be_listed(pid_t pid) const {
  if (!is_known_) return true;
  if (lines_.empty()) return false;
  char exe[EXE_PATH_SIZE + 1];  // the link may fill its part without a terminator
  exe[EXE_PATH_SIZE] = '\0';
  if (pid_to_proc(pid, exe, EXE_PATH_SIZE) == 0) return true;
  return std::any_of(lines_.begin(), lines_.end(),
                     [&](const std::string &line) { return strstr(line.c_str(), exe) != nullptr; });
}
