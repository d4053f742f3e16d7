// The event ring: from the thread that reads the kernel's process events to the one that acts on
// them.
//
// A byte ring in the manner of the Linux kernel's kfifo, with one producer and one consumer and no
// lock. `in` and `out` count bytes for ever and wrap at 32 bits; because the capacity is a power
// of two, the masked difference stays right across the wrap. The producer alone moves `in`, the
// consumer alone moves `out`: each releases its index after its copy and acquires the other's
// before it.
//
// The ring knows no records. Whoever puts less than a whole record in (the last bytes of a nearly
// full ring) leaves the consumer out of step with those that follow; the consumer's length test
// drops a short record at the end of the ring.
//
// The queue of the daemon is one such ring, whose consumer sleeps while it is empty
// (core/run/wake), so that an idle daemon does not wake up to look.
#ifndef TOV_FIFO_H
#define TOV_FIFO_H

#include <stddef.h>
#include <stdint.h>

enum {
  TOV_CNMSG_FIFO_BYTES = 0x80000  // room for 43,690 event records
};

// Names and order of the fields are the kernel's. Zeroed, it is a ring without a buffer.
struct kfifo {
  uint32_t in;     // bytes (elements) ever put in; written by the producer
  uint32_t out;    // ever taken out; written by the consumer
  uint32_t mask;   // capacity in elements - 1
  uint32_t esize;  // bytes of an element
  void *data;      // owned
};

// Gives `fifo` an empty buffer of `size` elements of `esize` bytes, `size` rounded down to a power
// of two. Before the ring has users.
// Returns 0, -EINVAL (size below 2) or -ENOMEM; after a failure the ring has no buffer and mask 0.
int __kfifo_alloc(struct kfifo *fifo, unsigned int size, size_t esize);

// Frees the buffer and zeroes the control block. After the last user.
void __kfifo_free(struct kfifo *fifo);

// Copies min(len, free room) elements from `src` into the ring. Returns how many. Producer only.
unsigned int __kfifo_in(struct kfifo *fifo, const void *src, unsigned int len);

// Copies min(len, used room) elements out of the ring to `dst`. Returns how many. Consumer only.
unsigned int __kfifo_out(struct kfifo *fifo, void *dst, unsigned int len);

// Elements in the ring now. Either side; the other one may change it at any time.
inline uint32_t kfifo_len(const struct kfifo *fifo) {
  const uint32_t out = __atomic_load_n(&fifo->out, __ATOMIC_ACQUIRE);
  return __atomic_load_n(&fifo->in, __ATOMIC_ACQUIRE) - out;
}

inline bool kfifo_is_empty(const struct kfifo *fifo) {
  return kfifo_len(fifo) == 0;
}

// No free element at all. Producer only.
inline bool kfifo_is_full(const struct kfifo *fifo) {
  return kfifo_len(fifo) > fifo->mask;
}

// The daemon's event queue: element size 1, 12-byte records (tov_cnmsg_data_t).
extern struct kfifo tov_cnmsg_fifo;

// Makes the queue and the means to wait for it, tov_wake_open(). Before its threads.
// Returns 0; -1 with a diagnostic when memory or descriptors lack.
int tov_cnmsg_fifo_alloc(void);

// Frees the queue. After both threads have been joined.
void tov_cnmsg_fifo_free(void);

// Waits until the queue is not empty, `timeout_ms` have passed (negative: no limit) or a pass was
// asked for, tov_wake(); asleep in poll(2). A signal does not end it. Consumer only. Returns
// whether the queue holds something.
bool tov_cnmsg_fifo_wait(int timeout_ms);

// Wakes the consumer if it waits; call it after each __kfifo_in() on the queue. One atomic
// exchange, and one write(2) more only when the consumer waits. Producer only.
void tov_cnmsg_fifo_wake(void);

#endif  // TOV_FIFO_H
