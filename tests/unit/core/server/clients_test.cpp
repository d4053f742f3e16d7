// The table of connected clients: who gets which slot, and how much of it a walk sees.
#include "core/server/clients.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class TovClients : public testing::Test {
 protected:
  TovClients() { tov_clients_init(); }
};

TEST_F(TovClients, EmptyTableIsNotWalked) {
  EXPECT_THAT(tov_clients(), IsEmpty());
}

TEST_F(TovClients, WalkCostsWhatIsConnected) {
  for (const int sd : {10, 11, 12})
    EXPECT_TRUE(tov_clients_add(sd));
  EXPECT_THAT(tov_clients(), ElementsAre(10, 11, 12));
}

TEST_F(TovClients, LowestFreeSlotIsTaken) {
  for (const int sd : {10, 11, 12, 13})
    tov_clients_add(sd);
  EXPECT_TRUE(tov_clients_remove(12));
  EXPECT_TRUE(tov_clients_remove(11));
  EXPECT_THAT(tov_clients(), ElementsAre(10, -1, -1, 13));
  EXPECT_TRUE(tov_clients_add(20));
  EXPECT_THAT(tov_clients(), ElementsAre(10, 20, -1, 13));
}

TEST_F(TovClients, TableShrinksToItsHighestClient) {
  for (const int sd : {10, 11, 12, 13})
    tov_clients_add(sd);
  tov_clients_remove(12);
  tov_clients_remove(13);
  EXPECT_THAT(tov_clients(), ElementsAre(10, 11));
  tov_clients_remove(10);
  EXPECT_THAT(tov_clients(), ElementsAre(-1, 11));
  tov_clients_remove(11);
  EXPECT_THAT(tov_clients(), IsEmpty());
}

TEST_F(TovClients, LowestOfTwoEqualDescriptorsIsRemoved) {
  for (const int sd : {10, 11, 10})
    tov_clients_add(sd);
  EXPECT_TRUE(tov_clients_remove(10));
  EXPECT_THAT(tov_clients(), ElementsAre(-1, 11, 10));
}

TEST_F(TovClients, StrangerIsNotFound) {
  EXPECT_FALSE(tov_clients_remove(10));
  tov_clients_add(10);
  tov_clients_add(11);
  tov_clients_remove(10);
  EXPECT_FALSE(tov_clients_remove(10));
  EXPECT_FALSE(tov_clients_remove(-1)) << "a free slot is nobody's";
  EXPECT_THAT(tov_clients(), ElementsAre(-1, 11));
}

TEST_F(TovClients, FullTableRefusesOneMoreAndTakesItOnceAnotherHasGone) {
  for (int i = 0; i < TOV_CLIENT_NUM; i++)
    ASSERT_TRUE(tov_clients_add(100 + i)) << i;
  EXPECT_EQ(tov_clients().size(), 2048u);
  EXPECT_FALSE(tov_clients_add(5000));
  EXPECT_TRUE(tov_clients_remove(100 + 777));
  EXPECT_TRUE(tov_clients_add(5000));
  EXPECT_EQ(tov_clients()[777], 5000);
  EXPECT_FALSE(tov_clients_add(5001));
}

}  // namespace
