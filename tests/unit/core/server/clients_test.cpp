// The table of connected clients: who gets which slot, and who is let go.
#include "core/server/clients.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stddef.h>

#include <vector>

using testing::Each;
using testing::ElementsAre;

namespace {

class TovClients : public testing::Test {
 protected:
  TovClients() { tov_clients_init(); }

  static std::vector<int> first(size_t count) {
    return {tov_clients().begin(), tov_clients().begin() + static_cast<long>(count)};
  }
};

TEST_F(TovClients, EmptyTableHasNothingButFreeSlots) {
  EXPECT_EQ(tov_clients().size(), 2048u);
  EXPECT_THAT(tov_clients(), Each(-1));
  EXPECT_EQ(tov_clients_count(), 0);
}

TEST_F(TovClients, SlotsAreTakenInOrder) {
  for (const int slot : {0, 1, 2})
    EXPECT_EQ(tov_clients_add(10 + slot), slot);
  EXPECT_THAT(first(4), ElementsAre(10, 11, 12, -1));
  EXPECT_EQ(tov_clients_count(), 3);
}

TEST_F(TovClients, LowestFreeSlotIsTaken) {
  for (const int sd : {10, 11, 12, 13})
    tov_clients_add(sd);
  EXPECT_TRUE(tov_clients_remove(2, 12));
  EXPECT_TRUE(tov_clients_remove(1, 11));
  EXPECT_THAT(first(4), ElementsAre(10, -1, -1, 13));
  EXPECT_EQ(tov_clients_add(20), 1);
  EXPECT_THAT(first(4), ElementsAre(10, 20, -1, 13));
  EXPECT_EQ(tov_clients_count(), 3);
}

TEST_F(TovClients, LowestFreeSlotIsTakenWhereverItIs) {
  for (int slot = 0; slot < TOV_CLIENT_NUM; slot++)
    tov_clients_add(100 + slot);
  for (const int slot : {2047, 1000, 64, 127, 63, 0})
    EXPECT_TRUE(tov_clients_remove(slot, 100 + slot));
  for (const int slot : {0, 63, 64, 127, 1000, 2047, -1})
    EXPECT_EQ(tov_clients_add(5000), slot);
}

TEST_F(TovClients, StrangerIsNotFound) {
  EXPECT_FALSE(tov_clients_remove(0, 10));
  tov_clients_add(10);
  tov_clients_add(11);
  EXPECT_FALSE(tov_clients_remove(1, 10)) << "another's slot";
  EXPECT_TRUE(tov_clients_remove(0, 10));
  EXPECT_FALSE(tov_clients_remove(0, 10));
  EXPECT_FALSE(tov_clients_remove(0, -1)) << "a free slot is nobody's";
  EXPECT_FALSE(tov_clients_remove(-1, 11));
  EXPECT_FALSE(tov_clients_remove(TOV_CLIENT_NUM, 11));
  EXPECT_THAT(first(3), ElementsAre(-1, 11, -1));
  EXPECT_EQ(tov_clients_count(), 1);
}

TEST_F(TovClients, FullTableRefusesOneMoreAndTakesItOnceAnotherHasGone) {
  for (int i = 0; i < TOV_CLIENT_NUM; i++)
    ASSERT_EQ(tov_clients_add(100 + i), i);
  EXPECT_EQ(tov_clients_count(), 2048);
  EXPECT_EQ(tov_clients_add(5000), -1);
  EXPECT_TRUE(tov_clients_remove(777, 100 + 777));
  EXPECT_EQ(tov_clients_add(5000), 777);
  EXPECT_EQ(tov_clients()[777], 5000);
  EXPECT_EQ(tov_clients_add(5001), -1);
}

}  // namespace
