// What a fuzz target knows must hold: the fuzzer keeps the input that ends the program.
#ifndef TOV_TEST_FUZZ_REQUIRE_H
#define TOV_TEST_FUZZ_REQUIRE_H

#include <stdlib.h>

inline void require(bool holds) {
  if (!holds) abort();
}

#endif  // TOV_TEST_FUZZ_REQUIRE_H
