// The ring's copying and the consumer's sleep.
//
// How no wake-up is lost: the flag `consumer_waits` is only ever changed by an exchange, so that
// all changes have one order. The consumer raises it and then looks at the ring again; the
// producer puts its bytes in and then lowers it. If the producer's exchange comes first, the
// consumer's reads from it and therefore sees the bytes; if it comes second, it finds the flag
// raised and writes to the eventfd. A plain store and load would need fences on both sides, which
// the thread sanitizer cannot follow.
//
// Threads: "tov_process_netlink" produces, "tov_cnmsg_handle" consumes.
// Losses: none here; what does not fit is the caller's to report.
#include "core/events/tov_fifo.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <bit>

#include "core/run/wake.h"
#include "log/tov_dbg.h"
#include "util/clock.h"

struct kfifo tov_cnmsg_fifo;

static int consumer_waits = 0;  // exchanged only

// ---- the ring ------------------------------------------------------------------------------

namespace {

// An element index in the ring as a byte position, and how many elements follow it before the end.
struct place_s {
  size_t offset;
  uint32_t until_end;
};

}  // namespace

static place_s place_of(const kfifo *fifo, uint32_t index) {
  const uint32_t at = index & fifo->mask;
  return {static_cast<size_t>(at) * fifo->esize, fifo->mask + 1 - at};
}

int __kfifo_alloc(kfifo *fifo, unsigned int size, size_t esize) {
  *fifo = kfifo{};
  fifo->esize = static_cast<uint32_t>(esize);
  if (size < 2) return -EINVAL;

  const uint32_t capacity = std::bit_floor(size);
  fifo->data = calloc(capacity, esize);  // tells an overflowing product from memory
  if (fifo->data == nullptr) return -ENOMEM;
  fifo->mask = capacity - 1;
  return 0;
}

void __kfifo_free(kfifo *fifo) {
  free(fifo->data);
  *fifo = kfifo{};
}

unsigned int __kfifo_in(kfifo *fifo, const void *src, unsigned int len) {
  if (fifo->data == nullptr) return 0;  // with mask 0 the arithmetic would see one free byte
  const uint32_t in = __atomic_load_n(&fifo->in, __ATOMIC_RELAXED);
  const uint32_t used = in - __atomic_load_n(&fifo->out, __ATOMIC_ACQUIRE);
  len = std::min(len, fifo->mask + 1 - used);
  if (len == 0) return 0;

  const place_s place = place_of(fifo, in);
  const size_t first = static_cast<size_t>(std::min(len, place.until_end)) * fifo->esize;
  const size_t rest = static_cast<size_t>(len) * fifo->esize - first;
  char *ring = static_cast<char *>(fifo->data);
  memcpy(ring + place.offset, src, first);
  memcpy(ring, static_cast<const char *>(src) + first, rest);

  __atomic_store_n(&fifo->in, in + len, __ATOMIC_RELEASE);
  return len;
}

unsigned int __kfifo_out(kfifo *fifo, void *dst, unsigned int len) {
  if (fifo->data == nullptr) return 0;
  const uint32_t out = __atomic_load_n(&fifo->out, __ATOMIC_RELAXED);
  const uint32_t used = __atomic_load_n(&fifo->in, __ATOMIC_ACQUIRE) - out;
  len = std::min(len, used);
  if (len == 0) return 0;

  const place_s place = place_of(fifo, out);
  const size_t first = static_cast<size_t>(std::min(len, place.until_end)) * fifo->esize;
  const size_t rest = static_cast<size_t>(len) * fifo->esize - first;
  const char *ring = static_cast<const char *>(fifo->data);
  memcpy(dst, ring + place.offset, first);
  memcpy(static_cast<char *>(dst) + first, ring, rest);

  __atomic_store_n(&fifo->out, out + len, __ATOMIC_RELEASE);
  return len;
}

// ---- the event queue -----------------------------------------------------------------------

int tov_cnmsg_fifo_alloc(void) {
  if (tov_wake_open() == 0 && __kfifo_alloc(&tov_cnmsg_fifo, TOV_CNMSG_FIFO_BYTES, 1) == 0)
    return 0;
  TOV_DBG("%s: kfifo_alloc fail!\n", __func__);
  return -1;
}

void tov_cnmsg_fifo_free(void) {
  __kfifo_free(&tov_cnmsg_fifo);
}

// A wake-up that belongs to an earlier wait (its producer was late) only costs a pass.
bool tov_cnmsg_fifo_wait(int timeout_ms) {
  if (!kfifo_is_empty(&tov_cnmsg_fifo)) return true;

  const int64_t deadline_ms = tov_clock_ms() + timeout_ms;
  int64_t left_ms = timeout_ms;
  bool pass_asked = false;
  do {
    __atomic_exchange_n(&consumer_waits, 1, __ATOMIC_ACQ_REL);
    if (kfifo_is_empty(&tov_cnmsg_fifo)) pass_asked = tov_wake_wait(static_cast<int>(left_ms));
    __atomic_exchange_n(&consumer_waits, 0, __ATOMIC_ACQ_REL);
    if (!kfifo_is_empty(&tov_cnmsg_fifo)) return true;
    if (timeout_ms >= 0) left_ms = deadline_ms - tov_clock_ms();
  } while (!pass_asked && (timeout_ms < 0 || left_ms > 0));
  return false;
}

void tov_cnmsg_fifo_wake(void) {
  if (__atomic_exchange_n(&consumer_waits, 0, __ATOMIC_ACQ_REL) != 0) tov_wake_for_ring();
}
