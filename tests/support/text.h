// Texts taken apart and compared with patterns.
//
// Patterns go through the test framework's POSIX regular expressions: std::regex of g++ 12 does not
// compile with warnings as errors in an optimised sanitizer build.
#ifndef TOV_TEST_TEXT_H
#define TOV_TEST_TEXT_H

#include <gmock/gmock.h>
#include <stddef.h>

#include <algorithm>
#include <string>
#include <vector>

namespace tov_test {

// Does the whole text match the extended regular expression? A "." matches a line feed, too.
inline bool matches(const std::string &text, const std::string &pattern) {
  return testing::Matches(testing::MatchesRegex(pattern))(text);
}

// The lines of a text without their ends; the last one need not have one.
inline std::vector<std::string> split_lines(const std::string &text,
                                            const std::string &end = "\n") {
  std::vector<std::string> lines;
  for (size_t at = 0; at < text.size();) {
    const size_t stop = std::min(text.find(end, at), text.size());
    lines.push_back(text.substr(at, stop - at));
    at = stop + end.size();
  }
  return lines;
}

}  // namespace tov_test

#endif  // TOV_TEST_TEXT_H
