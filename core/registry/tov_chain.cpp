// The registries' operations: lock, insert, search, remove.
//
// Records are heap blocks that belong to the registry that links them; whoever unlinks one frees
// it, and apart from tov_chain_new_record() that happens only here. Insertion is at the head of a
// bucket, hence "first match" means newest and "last match" oldest.
//
// Threads: any, under the registry's lock. The priority is inherited because the sweep and the
// delayed restarts run at ordinary priority and hold locks for which the threads at 99 wait.
#include "core/registry/tov_chain.h"

#include <assert.h>
#include <errno.h>
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include <utility>

#include "alive/tov_sys_alive.h"
#include "core/registry/links.h"
#include "core/registry/supervised.h"
#include "core/registry/watched.h"
#include "core/run/ends.h"
#include "core/run/known.h"
#include "include/tov_registry.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "util/identity.h"
#include "util/tov_utils.h"

tov_chains_t tov_chains;
tov_chains_t tov_alive_chains;
tov_chains_t tov_chains_delay;

// ---- the lock and its order ----------------------------------------------------------------

#ifndef NDEBUG
namespace {

// How often this thread holds each registry. Plain numbers: detached threads may still run while
// the process ends, so nothing here may have a destructor.
struct held_s {
  int chains;
  int alive;
  int delay;
};

}  // namespace
static thread_local held_s held;

// The count of a registry, or null for one that takes no part in the order (a test's own).
static int *held_count(const tov_chains_t *chains) {
  if (chains == &tov_chains) return &held.chains;
  if (chains == &tov_alive_chains) return &held.alive;
  if (chains == &tov_chains_delay) return &held.delay;
  return nullptr;
}

// Asserted before the lock is taken, so that a wrong order is found without its deadlock.
static void note_lock(const tov_chains_t *chains) {
  int *count = held_count(chains);
  if (count == nullptr) return;
  if (*count == 0) {
    const bool nothing_after_it = held.alive == 0 && held.delay == 0;
    assert(nothing_after_it && "tov_chains first, then one of the others");
  }
  ++*count;
}

static void note_unlock(const tov_chains_t *chains) {
  int *count = held_count(chains);
  if (count == nullptr) return;
  assert(*count > 0 && "unlocked by the thread that locked");
  --*count;
}
#else
static void note_lock(const tov_chains_t *) {}
static void note_unlock(const tov_chains_t *) {}
#endif

tov_chains_guard_s::tov_chains_guard_s(tov_chains_t &chains) : chains_(&chains) {
  note_lock(chains_);
  pthread_mutex_lock(&chains_->lock);
}

// Not analysed: this is the unlocking, of which the C library's header does not tell.
void tov_chains_guard_s::release() TOV_NO_THREAD_SAFETY {
  if (chains_ == nullptr) return;
  note_unlock(chains_);
  pthread_mutex_unlock(&std::exchange(chains_, nullptr)->lock);
}

static void make_lock(pthread_mutex_t *lock) {
  pthread_mutexattr_t wanted;
  pthread_mutexattr_init(&wanted);
  pthread_mutexattr_settype(&wanted, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutexattr_setprotocol(&wanted, PTHREAD_PRIO_INHERIT);
  if (pthread_mutex_init(lock, &wanted) != 0) {  // a kernel without priority inheritance
    pthread_mutexattr_setprotocol(&wanted, PTHREAD_PRIO_NONE);
    pthread_mutex_init(lock, &wanted);
  }
  pthread_mutexattr_destroy(&wanted);
}

// ---- registries ----------------------------------------------------------------------------

void tov_init_chains(tov_chains_t *chains) {
  for (tov_hlist_head_s &bucket : chains->pidchain)
    bucket.first = nullptr;
  make_lock(&chains->lock);
  const tov_chains_guard_t guard(*chains);
  chains->node_num = 0;
}

// Frees the row that the next daemon would find. Not analysed: which registry's lock the caller
// holds is seen by the comparison alone.
static void free_row(tov_chains_t *chains, tov_pid_t *record) TOV_NO_THREAD_SAFETY {
  if (chains == &tov_alive_chains) tov_watched_free(record);
  if (chains == &tov_chains) tov_supervised_free(record);
}

// Removes a record for good: a watched thread also loses its slot in the shared area.
static void remove_with_slot(tov_chains_t *chains, tov_pid_t *record) TOV_REQUIRES(*chains) {
  // Not asked whether it is below 0: of such an id the area itself says "pid err".
  if (chains == &tov_alive_chains && record->pid < TOV_ALIVE_ID_COUNT)
    tov_sys_unreg_alive_info(record->pid);
  tov_chain_remove(chains, record);
}

// An end in order hands everything over: the rows stay. But for those of threads that have
// withdrawn unheard: with the slot goes the mark that would tell the next daemon so.
void tov_destroy_chains(tov_chains_t *chains) {
  const tov_chains_guard_t guard(*chains);
  for (tov_pid_t &record : tov_chain_records(chains)) {
    const bool is_thread = chains == &tov_alive_chains;
    if (is_thread && record.row != 0 && tov_sys_is_withdrawn(record.pid)) free_row(chains, &record);
    remove_with_slot(chains, &record);
  }
}

// ---- records -------------------------------------------------------------------------------

static tov_hlist_head_s *bucket_of(tov_chains_t *chains, pid_t pid) TOV_REQUIRES(*chains) {
  return &chains->pidchain[pidhash(pid)];
}

tov_pid_t *tov_chain_new_record(void) {
  return static_cast<tov_pid_t *>(safe_malloc(sizeof(tov_pid_t)));
}

void tov_chain_insert(tov_chains_t *chains, tov_pid_t *record) {
  static uint64_t last_serial = 0;
  record->serial = __atomic_add_fetch(&last_serial, 1, __ATOMIC_RELAXED);  // of all registries
  tov_list_init(&record->pidlist);
  tov_hlist_add_head(&record->pidlink, bucket_of(chains, record->pid));
  if (chains == &tov_chains) tov_known_enter(record->pid);
  chains->node_num++;
}

void tov_chain_forget_child(pid_t child) {
  if (child < 1) return;
  tov_ends_await_no_more(child);
  tov_known_leave(child);
}

void tov_chain_remove(tov_chains_t *chains, tov_pid_t *record) {
  tov_hlist_del(&record->pidlink);
  tov_list_del(&record->pidlist);
  if (record->start.wait == TOV_WAIT_END) tov_ends_await_no_more(record->pid);
  if (record->start.wait != TOV_WAIT_NONE) tov_list_del(&record->start.link);
  if (chains == &tov_chains) {
    tov_chain_forget_child(record->start.forked);
    tov_known_leave(record->pid);
  }
  free(record);
  chains->node_num--;
}

void tov_chain_rekey(tov_chains_t *chains, tov_pid_t *record, pid_t new_pid) {
  tov_hlist_del(&record->pidlink);
  if (chains == &tov_chains) {
    tov_known_enter(new_pid);
    tov_known_leave(record->pid);
  }
  record->pid = new_pid;
  tov_hlist_add_head(&record->pidlink, bucket_of(chains, new_pid));
}

tov_pid_t *__tov_find_pid(tov_chains_t *chains, pid_t pid) {
  for (tov_pid_t &record : tov_chain_bucket(chains, pidhash(pid))) {
    if (record.pid == pid) return &record;
  }
  return nullptr;
}

tov_pid_t *tov_get_oldest_node(pid_t pid) {
  tov_pid_t *oldest = nullptr;
  for (tov_pid_t &record : tov_chain_bucket(&tov_chains, pidhash(pid))) {
    if (record.pid == pid) oldest = &record;
  }
  return oldest;
}

void __tov_del_pid(tov_chains_t *chains, pid_t pid) {
  for (tov_pid_t &record : tov_chain_bucket(chains, pidhash(pid))) {
    if (record.pid != pid) continue;
    TOV_DBG("%s del pid %d\n", __func__, pid);
    free_row(chains, &record);
    tov_chain_remove(chains, &record);
  }
}

// Says so when an argument of tov_del_node_chain() is missing.
static bool both_given(const tov_pid_t *record, const tov_chains_t *chains) {
  if (record != nullptr && chains != nullptr) return true;
  TOV_DBG("%s: %s\n", "tov_del_node_chain", strerror(EINVAL));
  return false;
}

void tov_del_node_chain(tov_pid_t *record, tov_chains_t *chains) {
  if (!both_given(record, chains)) return;
  const pid_t parent = record->pid;  // `record` itself may be among those removed
  for (tov_pid_t &child : tov_chain_records(chains)) {
    if (child.ppid != parent) continue;
    TOV_DBG("%s: delete pid (%d) ppid (%d) from chain!\n", __func__, child.pid, child.ppid);
    free_row(chains, &child);  // before the slot: whoever comes after us must not find it
    remove_with_slot(chains, &child);
  }
}

void tov_del_threads_of(const tov_pid_t &owner) {
  const tov_chains_guard_t guard(tov_alive_chains);
  const uint64_t started = owner.identity.started;
  for (tov_pid_t &thread : tov_chain_records(&tov_alive_chains)) {
    const bool is_others = tov_identity_is_start(started) && thread.owner_started != 0 &&
                           thread.owner_started != started;
    if (thread.ppid != owner.pid || is_others) continue;
    TOV_DBG("%s: delete pid (%d) ppid (%d) from chain!\n", "tov_del_node_chain", thread.pid,
            thread.ppid);
    free_row(&tov_alive_chains, &thread);
    remove_with_slot(&tov_alive_chains, &thread);
  }
}

void tov_del_node_chain_safe(tov_pid_t *record, tov_chains_t *chains) {
  if (!both_given(record, chains)) return;
  const tov_chains_guard_t guard(*chains);
  tov_del_node_chain(record, chains);
}
