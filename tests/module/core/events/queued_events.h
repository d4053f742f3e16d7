// What the tests of the kernel's process events share: the ring, and the events that went into it.
#ifndef TOV_TEST_MODULE_CORE_EVENTS_QUEUED_EVENTS_H
#define TOV_TEST_MODULE_CORE_EVENTS_QUEUED_EVENTS_H

#include <gtest/gtest.h>
#include <stdint.h>

#include <ostream>
#include <vector>

#include "core/events/tov_fifo.h"
#include "include/tov_registry.h"
#include "tests/module/world.h"

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

// Has a ring of its own.
class QueuedEvents : public World {
 protected:
  void SetUp() override {
    World::SetUp();
    ASSERT_EQ(tov_cnmsg_fifo_alloc(), 0);
  }
  void TearDown() override {
    tov_cnmsg_fifo_free();
    World::TearDown();
  }

  // Takes them out.
  static std::vector<Event> queued() {
    std::vector<Event> all;
    tov_cnmsg_data_t record;
    while (__kfifo_out(&tov_cnmsg_fifo, &record, sizeof record) == sizeof record)
      all.push_back({record.what, record.process_pid, record.exit_code});
    return all;
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_CORE_EVENTS_QUEUED_EVENTS_H
