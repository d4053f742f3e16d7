// The registries: what the daemon knows about supervised processes and watched threads.
//
// A registry hashes its records by process id into 256 buckets. The lists are intrusive, new
// records go to the head, so the first match of a search is the newest record of an id and the
// last one the oldest; two records of one id may stand beside each other for a while (a new
// registration before the old one was removed) and both are meant to be found.
//
// Locking: everything in a registry - buckets, records, count - is guarded by its `lock`, a
// recursive mutex that inherits priority, because threads of ordinary priority share it with
// threads at real-time priority 99. Order: `tov_chains` before `tov_alive_chains` or
// `tov_chains_delay`; debug builds assert it. Where a function says "caller holds the lock", it
// takes none.
#ifndef TOV_CHAIN_H
#define TOV_CHAIN_H

#include <assert.h>
#include <sys/types.h>

#include <iterator>
#include <span>

#include "alive/tov_sys_alive.h"  // IWYU pragma: keep (TOV_ALIVE_ID_COUNT)
#include "core/registry/links.h"
#include "include/tov.h"  // IWYU pragma: keep
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "util/list_file.h"  // IWYU pragma: keep

extern tov_chains_t tov_alive_chains;  // threads watched for liveness
extern tov_chains_t tov_chains_delay;  // exits that wait for a lock to go
extern tov_chains_t tov_chains         // processes that registered an exit action
    TOV_ACQUIRED_BEFORE(tov_alive_chains, tov_chains_delay);

// Holds a registry's lock; debug builds assert the order above. Taking a lock again that this
// thread holds already is always allowed.
class TOV_SCOPED_CAPABILITY tov_chains_guard_s {
 public:
  explicit tov_chains_guard_s(tov_chains_t &chains) TOV_ACQUIRE(chains);
  tov_chains_guard_s(const tov_chains_guard_s &) = delete;
  tov_chains_guard_s &operator=(const tov_chains_guard_s &) = delete;
  ~tov_chains_guard_s() TOV_RELEASE() { release(); }
  void release() TOV_RELEASE();  // unlocks before the end of the scope; once

  // The registry; null once released. Who is shown a guard as a witness calls
  // `tov_chain_remove(held.registry(), ...)` and the like, in this form: the analysis takes it that
  // the lock is held.
  tov_chains_t *registry() const TOV_ASSERT_CAPABILITY(*registry()) { return chains_; }

  // Says that the witness is the guard of this very registry; debug builds assert it.
  void shows(const tov_chains_t &chains) const TOV_ASSERT_CAPABILITY(chains) {
    assert(chains_ == &chains && "the guard of another registry, or released");
    (void)chains;
  }

 private:
  tov_chains_t *chains_;
};
using tov_chains_guard_t = tov_chains_guard_s;

// The bucket of a process id: the 32-bit product with the golden-ratio prime, its upper 8 bits.
inline unsigned int pidhash(int pid) {
  return (static_cast<unsigned int>(pid) * 0x9E370001u) >> 24;
}

// Empties the buckets and makes the lock. Before any thread uses the registry.
void tov_init_chains(tov_chains_t *chains);

// Removes and frees every record; for `tov_alive_chains` the threads' slots in the shared area are
// released too. The lock itself stays usable: detached threads may still come for it at shutdown.
void tov_destroy_chains(tov_chains_t *chains);

// A zeroed record that belongs to the caller until it is linked (free(3) if it never is); waits
// for memory, never null.
tov_pid_t *tov_chain_new_record(void);

// Links `record` at the head of the bucket of its `pid`, so that it is found before older records
// of the same id. The registry owns it from here on.
// Caller holds the lock.
void tov_chain_insert(tov_chains_t *chains, tov_pid_t *record) TOV_REQUIRES(*chains);

// Unlinks and frees one record. A thread's slot in the shared area stays: the caller who wants it
// gone releases it. Caller holds the lock.
void tov_chain_remove(tov_chains_t *chains, tov_pid_t *record) TOV_REQUIRES(*chains);

// The ends of the child of a restart (tov_record_take_child()), and of its threads, concern the
// record no more; below 1 there is none. Any thread.
void tov_chain_forget_child(pid_t child);

// Moves `record` to the head of the bucket of `new_pid` and stores the id; the count stays. What is
// named after the old id (the registration file) is removed before this. Caller holds the lock.
void tov_chain_rekey(tov_chains_t *chains, tov_pid_t *record, pid_t new_pid) TOV_REQUIRES(*chains);

// The newest record of `pid`, or null. Caller holds the lock and borrows the record under it.
tov_pid_t *__tov_find_pid(tov_chains_t *chains, pid_t pid) TOV_REQUIRES(*chains);

// The oldest record of `pid` in `tov_chains`, or null. Caller holds the lock.
tov_pid_t *tov_get_oldest_node(pid_t pid) TOV_REQUIRES(tov_chains);

// Removes and frees every record of `pid`. Caller holds the lock.
void __tov_del_pid(tov_chains_t *chains, pid_t pid) TOV_REQUIRES(*chains);

// Removes and frees every record whose `ppid` is `record->pid`; `record` itself stays unless it
// is its own parent. In `tov_alive_chains` each removed thread's slot in the shared area is
// released. Null arguments print a diagnostic and do nothing. Caller holds the lock.
void tov_del_node_chain(tov_pid_t *record, tov_chains_t *chains) TOV_REQUIRES(*chains);

// The same under the registry's lock.
void tov_del_node_chain_safe(tov_pid_t *record, tov_chains_t *chains);

// Removes the watched threads of the process for which a record of `tov_chains` stands, with their
// slots; not those of another process that has its id. Takes the lock of `tov_alive_chains`.
void tov_del_threads_of(const tov_pid_t &owner) TOV_EXCLUDES(tov_alive_chains);

// The records of some buckets, for a range-for: the buckets in order, each from its head. The
// successor is taken before the body runs, so that the body may remove the record it was given, but
// no other. Made under the registry's lock and used under it.
class tov_chain_range_s {
 public:
  explicit tov_chain_range_s(std::span<tov_hlist_head_s> buckets) : buckets_(buckets) {}

  class iterator_s {
   public:
    explicit iterator_s(std::span<tov_hlist_head_s> buckets) : rest_(buckets) { settle(); }
    tov_pid_t &operator*() const { return *tov_chain_record(node_); }
    iterator_s &operator++() {
      settle();
      return *this;
    }
    bool operator==(std::default_sentinel_t) const { return node_ == nullptr; }

   private:
    // Goes to the next record: in this bucket, or the first in those that are left.
    void settle() {
      node_ = next_;
      while (node_ == nullptr && !rest_.empty()) {
        node_ = rest_.front().first;
        rest_ = rest_.subspan(1);
      }
      next_ = node_ != nullptr ? node_->next : nullptr;
    }

    std::span<tov_hlist_head_s> rest_;  // buckets behind that of `node_`
    tov_hlist_node_s *node_ = nullptr;
    tov_hlist_node_s *next_ = nullptr;
  };

  iterator_s begin() const { return iterator_s(buckets_); }
  std::default_sentinel_t end() const { return {}; }

 private:
  std::span<tov_hlist_head_s> buckets_;
};

// All records, buckets 0 to 255 in order. Caller holds the lock.
inline tov_chain_range_s tov_chain_records(tov_chains_t *chains) TOV_REQUIRES(*chains) {
  return tov_chain_range_s(chains->pidchain);
}

// The records of one bucket. Caller holds the lock.
inline tov_chain_range_s tov_chain_bucket(tov_chains_t *chains, unsigned int bucket)
    TOV_REQUIRES(*chains) {
  return tov_chain_range_s({&chains->pidchain[bucket], 1});
}

#endif  // TOV_CHAIN_H
