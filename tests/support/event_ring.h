// The ring of process events in a test: what goes into it, and what came out.
#ifndef TOV_TEST_EVENT_RING_H
#define TOV_TEST_EVENT_RING_H

#include <gtest/gtest.h>
#include <stdint.h>

#include <optional>
#include <ostream>
#include <utility>
#include <vector>

#include "core/events/tov_fifo.h"
#include "core/run/known.h"
#include "core/run/wake.h"
#include "include/tov_registry.h"

namespace tov_test {

struct Event {
  uint32_t what;
  int pid;
  uint32_t code;
  bool operator==(const Event &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Event &event) {
  return out << "{" << event.what << ", " << event.pid << ", " << event.code << "}";
}

// What a fixture inherits beside its world: each test has a ring of its own, and hears everybody.
class EventRing {
 protected:
  EventRing() { EXPECT_EQ(tov_cnmsg_fifo_alloc(), 0); }
  ~EventRing() {
    tov_cnmsg_fifo_free();
    tov_wake_close();
  }
  EventRing(const EventRing &) = delete;
  EventRing &operator=(const EventRing &) = delete;

  // Queues an event and wakes the consumer.
  static void put(uint32_t what, int pid, uint32_t code) {
    const tov_cnmsg_data_t event{what, pid, code};
    EXPECT_EQ(__kfifo_in(&tov_cnmsg_fifo, &event, sizeof event), sizeof event);
    tov_cnmsg_fifo_wake();
  }

  // Leaves `room` bytes free.
  static void fill_ring(uint32_t room) {
    const std::vector<char> filler(TOV_CNMSG_FIFO_BYTES - room);
    ASSERT_EQ(__kfifo_in(&tov_cnmsg_fifo, filler.data(), static_cast<uint32_t>(filler.size())),
              filler.size());
  }

  // Takes the events out.
  static std::vector<Event> queued() {
    std::vector<Event> all;
    tov_cnmsg_data_t event;
    while (__kfifo_out(&tov_cnmsg_fifo, &event, sizeof event) == sizeof event)
      all.push_back({event.what, event.process_pid, event.exit_code});
    return all;
  }

  // Without it only who is known is heard.
  std::optional<tov_known_all_t> everybody_{std::in_place};
};

}  // namespace tov_test

#endif  // TOV_TEST_EVENT_RING_H
