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
#include <stdlib.h>
#include <string.h>

#include <utility>

#include "alive/tov_sys_alive.h"
#include "log/tov_dbg.h"
#include "util/tov_utils.h"

tov_chains_t tov_chains;
tov_chains_t tov_alive_chains;
tov_chains_t tov_chains_delay;

// ---- the lock and its order ----------------------------------------------------------------

#ifndef NDEBUG
// How often this thread holds each registry. Plain numbers: detached threads may still run while
// the process ends, so nothing here may have a destructor.
struct held_s {
  int chains;
  int alive;
  int delay;
};
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

void tov_chains_guard_s::release() {
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
  tov_chains_guard_t guard(*chains);
  chains->node_num = 0;
}

// Removes a record for good: a watched thread also loses its slot in the shared area.
static void remove_with_slot(tov_chains_t *chains, tov_pid_t *record) {
  if (chains == &tov_alive_chains && record->pid < TOV_ALIVE_ID_COUNT)
    tov_sys_unreg_alive_info(record->pid);
  tov_chain_remove(chains, record);
}

void tov_destroy_chains(tov_chains_t *chains) {
  tov_chains_guard_t guard(*chains);
  tov_chain_for_each(chains, [chains](tov_pid_t &record) {
    remove_with_slot(chains, &record);
    return true;
  });
}

// ---- records -------------------------------------------------------------------------------

static tov_hlist_head_s *bucket_of(tov_chains_t *chains, pid_t pid) {
  return &chains->pidchain[pidhash(pid)];
}

tov_pid_t *tov_chain_new_record(void) {
  return static_cast<tov_pid_t *>(safe_malloc(sizeof(tov_pid_t)));
}

void tov_chain_insert(tov_chains_t *chains, tov_pid_t *record) {
  tov_list_init(&record->pidlist);
  tov_hlist_add_head(&record->pidlink, bucket_of(chains, record->pid));
  chains->node_num++;
}

void tov_chain_remove(tov_chains_t *chains, tov_pid_t *record) {
  tov_hlist_del(&record->pidlink);
  tov_list_del(&record->pidlist);
  free(record);
  chains->node_num--;
}

void tov_chain_rekey(tov_chains_t *chains, tov_pid_t *record, pid_t new_pid) {
  tov_hlist_del(&record->pidlink);
  record->pid = new_pid;
  tov_hlist_add_head(&record->pidlink, bucket_of(chains, new_pid));
}

tov_pid_t *__tov_find_pid(tov_chains_t *chains, pid_t pid) {
  for (tov_hlist_node_s *node = bucket_of(chains, pid)->first; node != nullptr; node = node->next) {
    tov_pid_t *record = tov_chain_record(node);
    if (record->pid == pid) return record;
  }
  return nullptr;
}

tov_pid_t *tov_get_oldest_node(pid_t pid) {
  tov_pid_t *oldest = nullptr;
  for (tov_hlist_node_s *node = bucket_of(&tov_chains, pid)->first; node != nullptr;
       node = node->next) {
    tov_pid_t *record = tov_chain_record(node);
    if (record->pid == pid) oldest = record;
  }
  return oldest;
}

void __tov_del_pid(tov_chains_t *chains, pid_t pid) {
  tov_hlist_node_s *next = nullptr;
  for (tov_hlist_node_s *node = bucket_of(chains, pid)->first; node != nullptr; node = next) {
    next = node->next;
    tov_pid_t *record = tov_chain_record(node);
    if (record->pid != pid) continue;
    TOV_DBG("%s del pid %d\n", __func__, pid);
    tov_chain_remove(chains, record);
  }
}

void tov_del_node_chain(tov_pid_t *record, tov_chains_t *chains) {
  if (record == nullptr || chains == nullptr) {
    TOV_DBG("%s: %s\n", __func__, strerror(EINVAL));
    return;
  }
  const pid_t parent = record->pid;  // `record` itself may be among those removed
  tov_chain_for_each(chains, [chains, parent](tov_pid_t &child) {
    if (child.ppid != parent) return true;
    TOV_DBG("%s: delete pid (%d) ppid (%d) from chain!\n", "tov_del_node_chain", child.pid,
            child.ppid);
    remove_with_slot(chains, &child);
    return true;
  });
}

void tov_del_node_chain_safe(tov_pid_t *record, tov_chains_t *chains) {
  if (record == nullptr || chains == nullptr) {
    tov_del_node_chain(record, chains);  // says so and does nothing
    return;
  }
  tov_chains_guard_t guard(*chains);
  tov_del_node_chain(record, chains);
}
