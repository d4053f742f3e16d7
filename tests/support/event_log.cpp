// The daemon's event logs as a test reads them.
#include "tests/support/event_log.h"

#include <stddef.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "include/tov_registry.h"
#include "tests/support/processes.h"
#include "tests/support/text.h"

namespace tov_test {

static_assert(std::size(EVENT_LOGS) == TOV_LOG_TYPE_NUM);

std::string without_stamp(const std::string &line) {
  return line.size() < STAMP_LENGTH ? line : line.substr(STAMP_LENGTH);
}

std::string event_log_content(int type) {
  std::set<std::string> files;  // in the order of their names, which is that of their times
  std::error_code none;
  for (const auto &entry : std::filesystem::directory_iterator(EVENT_LOG_DIR, none))
    if (entry.path().filename().string().starts_with(EVENT_LOGS[type])) files.insert(entry.path());
  std::string content;
  for (const std::string &file : files)
    content += read_small_file(file);
  return content;
}

EventLogReader::EventLogReader() : seen_(TOV_LOG_TYPE_NUM) {}

std::vector<std::string> EventLogReader::news(int type) {
  const std::string content = event_log_content(type);
  size_t &seen = seen_[static_cast<size_t>(type)];
  std::vector<std::string> texts;
  for (const std::string &line :
       split_lines(content.substr(std::min(seen, content.size())), "\r\n"))
    texts.push_back(without_stamp(line));
  seen = content.size();
  return texts;
}

void EventLogReader::forget() {
  for (int type = 0; type < static_cast<int>(seen_.size()); type++)
    (void)news(type);
}

}  // namespace tov_test
