// The numbers that the kernel gives its process events, and which of them are missing.
//
// Each processor counts its events; the number is taken before the event is sent, so one that was
// lost on its way leaves a gap. The events of one processor come over one or two sockets
// (core/events/connector): over each of them in order, so a number that is missing now may be
// waiting in the other one. It is lost only when both have been read since: when an event of a
// number was there, those with lower numbers of the same processor had been sent.
//
// So a gap shows in the next event of its processor, and only behind an earlier one: what a
// processor that has been idle since the subscription sends first cannot be missed.
//
// Owned by the reader of process events. Some ten nanoseconds an event.
#ifndef TOV_CORE_EVENTS_NUMBERS_H
#define TOV_CORE_EVENTS_NUMBERS_H

#include <stddef.h>
#include <stdint.h>

#include <deque>
#include <vector>

class tov_numbers_s {
 public:
  enum {
    PROCESSORS_MAX = 1024,  // beyond that they are not watched
    RANGES_MAX = 65536,     // missing in all; with more of them everything is begun anew
  };

  // An event has come. The first of a processor says where its numbers begin.
  //   processor  4294967295 is none: not every event is numbered
  void seen(uint32_t processor, uint32_t number);

  // Whether numbers are missing, for whatever reason.
  bool any_missing() const { return ranges_ != 0; }

  // What is missing now, and of that alone, is lost unless it comes before the next lost(). For the
  // moment at which the socket has been read empty in whose events a gap shows.
  void mark();

  // How many of the marked numbers have not come. Each is told once. For the moment at which, after
  // the mark, the other socket has been read empty, too.
  uint64_t lost();

  // What is missing now will not be asked for.
  void forgive();

  // Nor what is missing up to the next event: begins anew. After a loss that is known otherwise.
  void forget();

 private:
  // Numbers in 64 bits, so that they do not come to their end: `begin` up to, not including, `end`.
  struct range_s {
    int64_t begin;
    int64_t end;
  };
  struct processor_s {
    bool known = false;
    int64_t next = 0;             // the lowest that is higher than all that came
    int64_t marked = 0;           // those below count for lost()
    std::deque<range_s> missing;  // in order
  };

  void came_late(processor_s *of, int64_t number);

  std::vector<processor_s> processors_;
  size_t ranges_ = 0;  // of all processors
};
using tov_numbers_t = tov_numbers_s;

#endif  // TOV_CORE_EVENTS_NUMBERS_H
