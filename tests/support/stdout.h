// What a piece of a test printed to standard output, through the stream or straight to the
// descriptor.
#ifndef TOV_TEST_STDOUT_H
#define TOV_TEST_STDOUT_H

#include <gtest/gtest.h>

#include <string>

namespace tov_test {

template <typename Body>
std::string printed_by(Body body) {
  testing::internal::CaptureStdout();
  body();
  return testing::internal::GetCapturedStdout();
}

}  // namespace tov_test

#endif  // TOV_TEST_STDOUT_H
