// The count before the reasons, and taken behind them: who takes a reason has its count.
//
// Tested by: tests/unit/core/run/loss_test.cpp
#include "core/run/loss.h"

#include <stdint.h>

#include "core/run/wake.h"

static uint64_t lost_count;
static uint32_t told_reasons;

void tov_loss_tell(uint32_t reasons, uint64_t count) {
  __atomic_fetch_add(&lost_count, count, __ATOMIC_ACQ_REL);
  __atomic_fetch_or(&told_reasons, reasons, __ATOMIC_ACQ_REL);
  tov_wake();
}

tov_loss_t tov_loss_take(void) {
  if (__atomic_load_n(&told_reasons, __ATOMIC_ACQUIRE) == 0) return {};
  tov_loss_t loss;
  loss.reasons = __atomic_exchange_n(&told_reasons, 0, __ATOMIC_ACQ_REL);
  loss.count = __atomic_exchange_n(&lost_count, 0, __ATOMIC_ACQ_REL);
  return loss;
}
