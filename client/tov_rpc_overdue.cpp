// Connections whose last request the daemon has yet to answer.
//
// Anything that can be read ends the debt: an answer, the end of the connection, or a stranger's
// bytes. The answer itself is not read, since nothing is learnt from it.
//
// Threads: any, under tov_rpc_lock. Blocks: tov_rpc_overdue_add() when all places are taken.
#include "client/tov_rpc_overdue.h"

#include <poll.h>
#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "client/tov_rpc_lock.h"
#include "client/tov_rpc_stop.h"
#include "include/tov_thread_safety.h"
#include "util/clock.h"
#include "util/owner.h"

enum { TOV_ROOM_WAIT_MS = 5000 };

namespace {

// One place. A descriptor is stored last and taken out first: a fork may copy the places while
// another thread is at work on them.
struct overdue_s {
  int sd;         // -1: free
  uint64_t turn;  // the smaller, the older
};

}  // namespace

static overdue_s overdue[TOV_RPC_OVERDUE_NUM] TOV_GUARDED_BY(tov_rpc_lock) = {
    {-1, 0}, {-1, 0}, {-1, 0}, {-1, 0}};
static uint64_t next_turn TOV_GUARDED_BY(tov_rpc_lock) = 0;

static void close_place(overdue_s &place) {
  const tov_fd_t close_it(std::exchange(place.sd, -1));
}

static overdue_s *find_room() TOV_REQUIRES(tov_rpc_lock) {
  overdue_s *place = std::find_if(std::begin(overdue), std::end(overdue),
                                  [](const overdue_s &each) { return each.sd < 0; });
  return place == std::end(overdue) ? nullptr : place;
}

// Waits until one place or more can be read from, closes those and returns whether there are any.
// A failed wait finds nothing.
static bool close_answered(int timeout_ms) TOV_REQUIRES(tov_rpc_lock) {
  pollfd asked[TOV_RPC_OVERDUE_NUM];
  for (size_t i = 0; i < std::size(asked); i++)
    asked[i] = {.fd = overdue[i].sd, .events = POLLIN, .revents = 0};  // -1 is passed over
  if (poll(asked, std::size(asked), timeout_ms) <= 0) return false;
  for (size_t i = 0; i < std::size(asked); i++) {
    if (asked[i].revents != 0) close_place(overdue[i]);
  }
  return true;
}

// Returns a free place, for which a connection was closed unanswered if need be. Unlike the wait
// for an acknowledgement this one has no caller to tell that a signal came, so it goes on.
static overdue_s *make_room() TOV_REQUIRES(tov_rpc_lock) {
  const int64_t end_ms = tov_clock_ms() + TOV_ROOM_WAIT_MS;
  for (int64_t left_ms = TOV_ROOM_WAIT_MS; left_ms > 0 && !tov_rpc_stopping();
       left_ms = end_ms - tov_clock_ms()) {
    if (close_answered(static_cast<int>(left_ms))) break;
  }
  if (overdue_s *room = find_room()) return room;
  overdue_s *oldest =
      std::min_element(std::begin(overdue), std::end(overdue),
                       [](const overdue_s &a, const overdue_s &b) { return a.turn < b.turn; });
  close_place(*oldest);
  return oldest;
}

void tov_rpc_overdue_add(int sd) {
  const tov_errno_keeper_s keep;
  overdue_s *place = find_room();
  if (place == nullptr) place = make_room();
  place->turn = next_turn++;
  place->sd = sd;
  tov_rpc_overdue_look();
}

void tov_rpc_overdue_look() {
  const bool any = std::any_of(std::begin(overdue), std::end(overdue),
                               [](const overdue_s &place) { return place.sd >= 0; });
  if (!any) return;
  const tov_errno_keeper_s keep;
  (void)close_answered(0);
}

// Not analysed: in the child of a fork no other thread is there, and the lock is a copy that one of
// them may have taken along.
void tov_rpc_overdue_forget() TOV_NO_THREAD_SAFETY {
  for (overdue_s &place : overdue)
    close_place(place);
}
