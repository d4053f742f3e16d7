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

#include "tov.h"
#include "tov_chain_list.h"
#include "tov_utils_owner.h"

extern tov_chains_t tov_chains;        // processes that registered an exit action
extern tov_chains_t tov_alive_chains;  // threads watched for liveness
extern tov_chains_t tov_chains_delay;  // exits that wait for a lock to go

enum {
  // Thread ids from here on have no slot in the shared area of thread liveness.
  TOV_ALIVE_ID_COUNT = 163840
};

// Holds a registry's lock; debug builds assert the order above.
class tov_chains_guard_s {
 public:
  explicit tov_chains_guard_s(tov_chains_t &chains);
  tov_chains_guard_s(const tov_chains_guard_s &) = delete;
  tov_chains_guard_s &operator=(const tov_chains_guard_s &) = delete;
  ~tov_chains_guard_s() { release(); }
  void release();  // unlocks before the end of the scope; once

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

// A zeroed record that belongs to the caller until it is linked; never null.
tov_pid_t *tov_chain_new_record(void);

// Links `record` at the head of the bucket of its `pid`. The registry owns it from here on.
// Caller holds the lock.
void tov_chain_insert(tov_chains_t *chains, tov_pid_t *record);

// Unlinks and frees one record. Caller holds the lock.
void tov_chain_remove(tov_chains_t *chains, tov_pid_t *record);

// Moves `record` to the bucket of `new_pid` and stores the id. Caller holds the lock.
void tov_chain_rekey(tov_chains_t *chains, tov_pid_t *record, pid_t new_pid);

// The newest record of `pid`, or null. Caller holds the lock and borrows the record under it.
tov_pid_t *__tov_find_pid(tov_chains_t *chains, pid_t pid);

// The oldest record of `pid` in `tov_chains`, or null. Caller holds the lock.
tov_pid_t *tov_get_oldest_node(pid_t pid);

// Removes and frees every record of `pid`. Caller holds the lock.
void __tov_del_pid(tov_chains_t *chains, pid_t pid);

// Removes and frees every record whose `ppid` is `record->pid`; `record` itself stays unless it
// is its own parent. In `tov_alive_chains` each removed thread's slot in the shared area is
// released. Null arguments print a diagnostic and do nothing. Caller holds the lock.
void tov_del_node_chain(tov_pid_t *record, tov_chains_t *chains);

// The same under the registry's lock.
void tov_del_node_chain_safe(tov_pid_t *record, tov_chains_t *chains);

// Calls `visit(tov_pid_t &)` for every record, buckets 0 to 255 in order, each from its head. The
// successor is taken before the call, so that `visit` may remove the record it was given. Ends
// early when `visit` returns false. Caller holds the lock.
template <typename Visit>
void tov_chain_for_each(tov_chains_t *chains, Visit visit);

// Reads the link /proc/<pid>/exe into `buf` of `size` bytes, zeroed first; no terminator is added
// beyond the zeroing. Returns 1, or 0 when the link cannot be read.
int pid_to_proc(pid_t pid, char *buf, int size);

// Looks a program up in a list file: the first line that contains `name` anywhere decides. What
// follows its last blank - line end included - is copied to `out` (at most size - 1 bytes).
// Returns 1; 0 when no line matches, the matching line has no blank, `name` is empty, or the file
// cannot be read.
int tov_proc_in_tovdb(const char *list_path, const char *name, char *out, int size);

// The same for the executable of a process.
int tov_pid_in_tovdb(pid_t pid, const char *list_path, char *out, int size);

template <typename Visit>
void tov_chain_for_each(tov_chains_t *chains, Visit visit) {
  for (tov_hlist_head_s &bucket : chains->pidchain) {
    for (tov_hlist_node_s *node = bucket.first; node != nullptr;) {
      tov_hlist_node_s *next = node->next;
      if (!visit(*tov_chain_record(node))) return;
      node = next;
    }
  }
}

#endif  // TOV_CHAIN_H
