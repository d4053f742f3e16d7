// What is said of lost events until the event handler takes it.
#include "core/run/loss.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include "core/run/wake.h"
#include "tests/unit/simulated.h"

namespace {

class TovLoss : public tov_test::Simulated {
 protected:
  TovLoss() {
    EXPECT_EQ(tov_wake_open(), 0);
    (void)tov_loss_take();
  }
  ~TovLoss() override { tov_wake_close(); }
};

}  // namespace

TEST_F(TovLoss, NothingSaidIsNothing) {
  EXPECT_EQ(tov_loss_take().reasons, 0u);
  EXPECT_FALSE(tov_wake_wait(0));
}

TEST_F(TovLoss, WhatWasSaidIsTakenOnceAndTogether) {
  tov_loss_tell(TOV_LOSS_EVENTS, 3);
  tov_loss_tell(TOV_LOSS_STOOD_STILL, 0);
  tov_loss_tell(TOV_LOSS_EVENTS, 4);
  EXPECT_TRUE(tov_wake_wait(0));
  const tov_loss_t loss = tov_loss_take();
  EXPECT_EQ(loss.reasons, uint32_t{TOV_LOSS_EVENTS | TOV_LOSS_STOOD_STILL});
  EXPECT_EQ(loss.count, 7u);
  EXPECT_EQ(tov_loss_take().reasons, 0u);
  EXPECT_EQ(tov_loss_take().count, 0u);
}
