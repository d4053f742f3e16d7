// Texts compared with patterns.
//
// Through the test framework's POSIX regular expressions: std::regex of g++ 12 does not compile
// with warnings as errors in an optimised sanitizer build.
#ifndef TOV_TEST_TEXT_H
#define TOV_TEST_TEXT_H

#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

namespace tov_test {

// Does the whole text match the extended regular expression? A "." matches a line feed, too.
inline bool matches(const std::string &text, const std::string &pattern) {
  return testing::Matches(testing::MatchesRegex(pattern))(text);
}

// The lines of a text without their line feeds.
inline std::vector<std::string> split_lines(const std::string &text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

}  // namespace tov_test

#endif  // TOV_TEST_TEXT_H
