// A range of missing numbers is entered when a higher one comes, and given back from its front as
// a rule: both sockets are in order.
//
// Tested by: tests/unit/core/events/numbers_test.cpp
#include "core/events/numbers.h"

#include <stddef.h>
#include <stdint.h>

#include <algorithm>

void tov_numbers_s::seen(uint32_t processor, uint32_t number) {
  if (processor >= PROCESSORS_MAX) return;
  if (processor >= processors_.size()) processors_.resize(processor + 1);
  processor_s &of = processors_[processor];
  if (!of.known) {
    of.known = true;
    of.next = of.marked = number;
  }
  // They wrap at 32 bits: the difference is right as long as it is below half of that.
  const int64_t ahead = static_cast<int32_t>(number - static_cast<uint32_t>(of.next));
  if (ahead < 0) return came_late(&of, of.next + ahead);
  if (ahead > 0) {
    of.missing.push_back({of.next, of.next + ahead});
    ranges_++;
  }
  of.next += ahead + 1;
  if (ranges_ > RANGES_MAX) forget();
}

void tov_numbers_s::came_late(processor_s *of, int64_t number) {
  const auto found =
      std::partition_point(of->missing.begin(), of->missing.end(),
                           [&](const range_s &range) { return range.end <= number; });
  if (found == of->missing.end() || found->begin > number) return;  // it had come, or was told
  const range_s before{found->begin, number}, after{number + 1, found->end};
  if (before.begin == before.end && after.begin == after.end) {
    of->missing.erase(found);
    ranges_--;
  } else if (before.begin == before.end) {
    *found = after;
  } else if (after.begin == after.end) {
    *found = before;
  } else {
    *found = after;
    of->missing.insert(found, before);
    ranges_++;
  }
}

void tov_numbers_s::mark() {
  for (processor_s &of : processors_)
    of.marked = of.next;
}

uint64_t tov_numbers_s::lost() {
  int64_t count = 0;
  for (processor_s &of : processors_) {
    // No range goes beyond the mark: at that moment the highest number had come.
    while (!of.missing.empty() && of.missing.front().end <= of.marked) {
      count += of.missing.front().end - of.missing.front().begin;
      of.missing.pop_front();
      ranges_--;
    }
  }
  return static_cast<uint64_t>(count);
}

void tov_numbers_s::forgive() {
  for (processor_s &of : processors_)
    of.missing.clear();
  ranges_ = 0;
}

void tov_numbers_s::forget() {
  processors_.clear();
  ranges_ = 0;
}
