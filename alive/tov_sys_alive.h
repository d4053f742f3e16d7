// The shared area of thread liveness: one registration bit and one sequence byte per thread id.
//
// A watched thread proves that it lives by advancing its byte, which costs it no system call; the
// daemon's watchdog compares the bytes between its passes. The daemon alone registers and removes,
// the owner thread alone advances, and both write the byte, hence relaxed atomics and this rule: a
// late advance may leave a byte under a clear bit, and the bit decides. Everything read here is a
// hint, since every user of the machine may write the area: nothing is indexed by it.
//
// Any user may also cut the object short, and touching the mapping behind the new end would be a
// SIGBUS. What is protected:
// - The daemon (the master) never touches the mapping. It reads and writes single bytes through
//   the descriptor, where a missing byte reads as zero, and gives a cut object its length back.
// - A client tests once per tov_sys_isreg_alive_info(), which comes first in every sign of life,
//   whether its bytes are still there, and restores the length if not; the thread then finds its
//   bit gone and registers afresh. So an area that was cut some time ago, by accident or on
//   purpose, does no harm.
// - What is left: a local user who cuts the object within the some hundred nanoseconds between
//   that test and the touch kills the client with SIGBUS. Closing that gap would cost each advance
//   a system call or the host program its signal handler; neither is ours to take.
//
// The calls take thread ids, whatever their parameter is called. Any thread.
#ifndef TOV_SYS_ALIVE_H
#define TOV_SYS_ALIVE_H

#include <stddef.h>
#include <stdint.h>

#include "alive/shared_memory.h"

enum {
  TOV_ALIVE_ID_COUNT = 163840,  // ids 0 to 163839; threads with others report by message
  TOV_ALIVE_MAP_BYTES = TOV_ALIVE_ID_COUNT / 8 + 1
};

inline constexpr char TOV_ALIVE_SHM_NAME[] = "/UTILS-tov-shm-001";
inline constexpr char TOV_ALIVE_SHM_PATH[] = "/dev/shm/UTILS-tov-shm-001";

// The area, native byte order. No field but `total_len`, `map` and `seq` is maintained.
typedef struct tov_sys_alive_info_s {
  uint32_t checksum;
  uint32_t version;
  uint32_t total_len;  // size of this record, written by the daemon
  uint32_t reserved[5];
  uint8_t map[TOV_ALIVE_MAP_BYTES];  // id n: bit n % 8 of byte n / 8; written by the daemon
  uint8_t seq[TOV_ALIVE_ID_COUNT];   // 1 to 255 while registered; daemon and owner thread
} tov_sys_alive_info_t;

static_assert(sizeof(tov_sys_alive_info_t) == 184356, "three bytes of padding included");
static_assert(offsetof(tov_sys_alive_info_t, total_len) == 8);
static_assert(offsetof(tov_sys_alive_info_t, reserved) == 12);
static_assert(offsetof(tov_sys_alive_info_t, map) == 32);
static_assert(offsetof(tov_sys_alive_info_t, seq) == 20513);

// Whether a thread id has a place in the area. A negative one would index before it.
inline bool tov_alive_has_slot(int tid) {
  return tid >= 0 && tid < TOV_ALIVE_ID_COUNT;
}

// This process's view of the area. Filled once, then read-only.
typedef struct tov_alive_info_s {
  ras_os_recordm_t recordm;
  tov_sys_alive_info_t *info;  // the mapping; null until then
} tov_alive_info_t;

extern tov_alive_info_t g_tov_alive_info;

// Maps the area, once per process; further calls return 0 and do nothing. The object is made if
// it does not exist, and opened to every user as far as its owner allows.
//   is_master  true in the daemon: all registrations are cleared, and from here on this process
//              goes through the descriptor
// Returns 0, or the code of ras_os_init_record_memory() with a diagnostic; the next call then
// tries again.
int tov_sys_init_alive_info(bool is_master);

// Registers a thread: bit set, sequence 1. Removes it: bit cleared, sequence 0.
// Return 0; -1 for an id out of range (diagnostic), an area that is not mapped or, in the master,
// cannot be written. In the daemon only: the bits of eight threads share a byte.
int tov_sys_reg_alive_info(int pid);
int tov_sys_unreg_alive_info(int pid);

// Whether a thread is registered. Maps the area first if need be (not as its master) and restores
// its length; false also when that fails or the id is out of range. In a client one cheap system
// call.
bool tov_sys_isreg_alive_info(int pid);

// Advances a thread's sequence: 1 to 255 and round to 1, never 0. In a client one load and one
// store. To be called right after tov_sys_isreg_alive_info() said true. Returns 0 or -1 as above.
int tov_sys_update_alive_seq(int pid);

// A thread's sequence, or -1 as above.
int tov_sys_get_alive_seq(int pid);

// ---- withdrawals that nobody hears ------------------------------------------------------------
//
// A thread may withdraw while there is no daemon, or one that dies before it has read the request;
// the next daemon, which knows the thread from the last one, would go on watching it and have its
// process killed. So whoever withdraws leaves a mark first, as no registered thread has it: the
// byte 0 under a set bit (the daemon was killed, or is there), 255 under a clear one (it ended in
// order and cleared all bits). A byte of 0 under a clear bit says nothing, as in an area that was
// cut.

// Leaves the mark in a client, where the daemon may not be. Nothing for ids out of range.
// Returns 0, or -1: the area is not there.
int tov_sys_mark_withdrawn(int pid);

// Whether a thread is so marked; false also when the area is not mapped. In the daemon only: a
// client would have to look whether the area is still whole.
bool tov_sys_is_withdrawn(int pid);

// The same of the area that the last daemon has left, before tov_sys_init_alive_info(true) clears
// it. As all that this area says it is a hint: every user may have written it.
//   fd  of tov_sys_open_left_area(), which returns it, the caller's own, or -errno
int tov_sys_open_left_area(void);
bool tov_sys_was_withdrawn(int fd, int pid);

// For the child of a fork: makes the lock of the initialisation afresh, which a thread that does
// not exist in the child may have held. The mapping is inherited and stays valid.
void tov_sys_alive_renew_lock(void);

#endif  // TOV_SYS_ALIVE_H
