// Counters by the low bits of an id: the kernel gives ids out one after the other, so registered
// programs seldom share one.
//
// Tested by: tests/unit/core/run/known_test.cpp, tests/module/core/run/known_threads_test.cpp
#include "core/run/known.h"

#include <stdint.h>
#include <sys/types.h>

static_assert((TOV_KNOWN_PLACES & (TOV_KNOWN_PLACES - 1)) == 0, "a power of two");

static uint16_t entered[TOV_KNOWN_PLACES];  // more reasons than 65,535 for one place cannot be had:
                                            // there are not so many records
static int all_known = 0;                   // how many ask for everybody

static uint16_t *place_of(pid_t pid) {
  return &entered[static_cast<uint32_t>(pid) & (TOV_KNOWN_PLACES - 1)];
}

void tov_known_enter(pid_t pid) {
  if (pid > 0) __atomic_add_fetch(place_of(pid), 1, __ATOMIC_SEQ_CST);
}

void tov_known_leave(pid_t pid) {
  if (pid > 0) __atomic_sub_fetch(place_of(pid), 1, __ATOMIC_SEQ_CST);
}

// The child's id was entered before `all_known` was lowered: loaded the other way round, both could
// be missed.
bool tov_known_may_be(pid_t pid) {
  if (__atomic_load_n(&all_known, __ATOMIC_SEQ_CST) > 0) return true;
  return pid > 0 && __atomic_load_n(place_of(pid), __ATOMIC_SEQ_CST) > 0;
}

tov_known_all_s::tov_known_all_s() {
  __atomic_add_fetch(&all_known, 1, __ATOMIC_SEQ_CST);
}

tov_known_all_s::~tov_known_all_s() {
  __atomic_sub_fetch(&all_known, 1, __ATOMIC_SEQ_CST);
}
