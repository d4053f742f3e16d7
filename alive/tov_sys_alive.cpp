// Mapping the shared area and touching one byte of it.
//
// Two ways lead to a byte: the daemon's through the descriptor, which no cut object can turn into
// a signal, and the clients' through the mapping, which costs some nanoseconds. Everything above
// `read_byte` and `write_byte` is the same for both.
//
// Threads: any. Only the initialisation has a lock.
// Losses: when the object was cut, all registrations in it are gone; the clients notice at their
// next sign of life and register again.
#include "alive/tov_sys_alive.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>

#include "alive/shared_memory.h"
#include "include/tov_thread_safety.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/tov_sys.h"

enum { MODE_EVERYBODY = 0777, SEQ_FIRST = 1, SEQ_LAST = 255, BITS_PER_BYTE = 8, CLEAR_STEP = 4096 };

tov_alive_info_t g_tov_alive_info;

static tov_mutex_t init_lock = PTHREAD_MUTEX_INITIALIZER;
// Written under init_lock. Not guarded by it in the analysis' sense: who reads `inited` with
// acquire reads the rest without the lock.
static bool inited = false;  // set last, with release
static bool master = false;  // set before `inited`, then read-only

// ---- one byte of the area ------------------------------------------------------------------

static off_t offset_of(const uint8_t *byte) {
  return byte - reinterpret_cast<const uint8_t *>(g_tov_alive_info.info);
}

// The value of a byte of the mapping, or -1. Read once: it may change at any time.
static int read_byte(const uint8_t *byte) {
  if (!master) return __atomic_load_n(byte, __ATOMIC_RELAXED);
  uint8_t value = 0;
  const ssize_t count = pread(g_tov_alive_info.recordm.fd, &value, 1, offset_of(byte));
  if (count == 0) (void)ras_os_restore_record_memory(&g_tov_alive_info.recordm);
  return count < 0 ? -1 : value;
}

static int write_byte(uint8_t *byte, uint8_t value) {
  if (!master) {
    __atomic_store_n(byte, value, __ATOMIC_RELAXED);
    return 0;
  }
  (void)ras_os_restore_record_memory(&g_tov_alive_info.recordm);
  return pwrite(g_tov_alive_info.recordm.fd, &value, 1, offset_of(byte)) == 1 ? 0 : -1;
}

// Whether a byte of the mapping can be touched without a SIGBUS at this moment. The kernel copies
// the signal set in before it refuses the senseless first argument, so this tells a bad address
// (EFAULT) from a good one (EINVAL) at the price of the cheapest system call, changes nothing, and
// needs no descriptor, which a host program may have closed. An object's end is the same for all
// its bytes: what is backed at some place is backed in front of it.
static bool is_backed(const uint8_t *byte) {
  static constexpr uintptr_t SET_BYTES = 8;
  const tov_errno_keeper_s keep;
  const uintptr_t set = reinterpret_cast<uintptr_t>(byte) & ~(SET_BYTES - 1);
  return syscall(SYS_rt_sigprocmask, ~0, set, nullptr, SET_BYTES) == 0 || errno != EFAULT;
}

// ---- mapping the area ----------------------------------------------------------------------

// Clears `map` and `seq` and writes the length, a page at a time. A page that cannot be written
// (the file system is full) was never written before and reads as zeroes already, so a failure is
// no reason to refuse the start: threads that get their byte later on such a page are not watched.
static void clear_area(int fd) {
  static constexpr uint8_t zeroes[CLEAR_STEP] = {};
  const uint32_t total_len = sizeof(tov_sys_alive_info_t);
  off_t at = offsetof(tov_sys_alive_info_t, map);
  const off_t end = offsetof(tov_sys_alive_info_t, seq) + TOV_ALIVE_ID_COUNT;

  (void)!pwrite(fd, &total_len, sizeof total_len, offsetof(tov_sys_alive_info_t, total_len));
  while (at < end) {
    const off_t next = std::min<off_t>((at / CLEAR_STEP + 1) * CLEAR_STEP, end);
    (void)!pwrite(fd, zeroes, static_cast<size_t>(next - at), at);
    at = next;
  }
}

static int map_area(bool is_master) TOV_REQUIRES(init_lock) {
  ras_os_recordm_t *recordm = &g_tov_alive_info.recordm;
  int err = 0;
  const int result =
      ras_os_init_record_memory(TOV_ALIVE_SHM_NAME, sizeof(tov_sys_alive_info_t), recordm, &err);
  if (result != 0) {
    TOV_DBG_ALIVE("ras_os_init_record_memory err(path:%s, ret:%d, err:%d)!\r\n", TOV_ALIVE_SHM_NAME,
                  result, err);
    return result;
  }
  // The umask narrowed the mode at creation. A client does not own the object and fails here.
  if (fchmod(recordm->fd, MODE_EVERYBODY) < 0) TOV_DBG_ALIVE("change mode failed!\r\n");
  g_tov_alive_info.info = static_cast<tov_sys_alive_info_t *>(recordm->addr);
  if (is_master) clear_area(recordm->fd);
  master = is_master;
  __atomic_store_n(&inited, true, __ATOMIC_RELEASE);
  return 0;
}

int tov_sys_init_alive_info(bool is_master) {
  if (__atomic_load_n(&inited, __ATOMIC_ACQUIRE)) return 0;  // each sign of life passes here
  const tov_lock_guard_t guard(init_lock);
  return inited ? 0 : map_area(is_master);
}

void tov_sys_alive_renew_lock(void) {
  const pthread_mutex_t fresh = PTHREAD_MUTEX_INITIALIZER;
  init_lock = fresh;
}

// ---- the threads ---------------------------------------------------------------------------

static bool id_is_valid(int pid) {
  if (tov_alive_has_slot(pid)) return true;
  TOV_DBG_ALIVE("pid err(pid:%d)!\r\n", pid);
  return false;
}

static bool can_be_touched(int pid) {
  return id_is_valid(pid) && g_tov_alive_info.info != nullptr;
}

static uint8_t *map_byte(int pid) {
  return &g_tov_alive_info.info->map[pid / BITS_PER_BYTE];
}

static uint8_t *seq_byte(int pid) {
  return &g_tov_alive_info.info->seq[pid];
}

static int bit_of(int pid) {
  return 1 << (pid % BITS_PER_BYTE);
}

// A client's test before it touches the bytes of a thread; gives a cut area its length back.
static bool is_backed_or_healed(int pid) {
  if (is_backed(seq_byte(pid))) return true;
  (void)ras_os_restore_record_memory(&g_tov_alive_info.recordm);
  return is_backed(seq_byte(pid)) && is_backed(map_byte(pid));
}

int tov_sys_reg_alive_info(int pid) {
  if (!can_be_touched(pid)) return -1;
  const int bits = read_byte(map_byte(pid));
  if (bits < 0 || write_byte(map_byte(pid), static_cast<uint8_t>(bits | bit_of(pid))) < 0)
    return -1;
  return write_byte(seq_byte(pid), SEQ_FIRST);
}

int tov_sys_unreg_alive_info(int pid) {
  if (!can_be_touched(pid)) return -1;
  const int bits = read_byte(map_byte(pid));
  if (bits < 0 || write_byte(map_byte(pid), static_cast<uint8_t>(bits & ~bit_of(pid))) < 0)
    return -1;
  return write_byte(seq_byte(pid), 0);
}

bool tov_sys_isreg_alive_info(int pid) {
  const int result = tov_sys_init_alive_info(false);
  if (result != 0) {
    TOV_DBG_ALIVE("fail to init alive_info(ret:%d)!!!\n", result);
    return false;
  }
  if (!id_is_valid(pid)) return false;
  if (!master && !is_backed_or_healed(pid)) return false;
  const int bits = read_byte(map_byte(pid));
  return bits >= 0 && (bits & bit_of(pid)) != 0;
}

int tov_sys_update_alive_seq(int pid) {
  if (!can_be_touched(pid)) return -1;
  const int seq = read_byte(seq_byte(pid));
  if (seq < 0) return -1;
  return write_byte(seq_byte(pid), static_cast<uint8_t>(seq < SEQ_LAST ? seq + 1 : SEQ_FIRST));
}

int tov_sys_get_alive_seq(int pid) {
  return can_be_touched(pid) ? read_byte(seq_byte(pid)) : -1;
}

// ---- withdrawals -----------------------------------------------------------------------------

// What a registered thread's byte never is, and what one is not whose daemon has cleared it.
static uint8_t withdrawn_byte(bool registered) {
  return registered ? 0 : SEQ_LAST;
}

int tov_sys_mark_withdrawn(int pid) {
  if (!tov_alive_has_slot(pid)) return 0;
  const bool registered = tov_sys_isreg_alive_info(pid);
  if (!can_be_touched(pid) || (!master && !is_backed_or_healed(pid))) return -1;
  return write_byte(seq_byte(pid), withdrawn_byte(registered));
}

bool tov_sys_is_withdrawn(int pid) {
  if (!tov_alive_has_slot(pid) || g_tov_alive_info.info == nullptr) return false;
  const int bits = read_byte(map_byte(pid));
  return bits >= 0 && read_byte(seq_byte(pid)) == withdrawn_byte((bits & bit_of(pid)) != 0);
}

int tov_sys_open_left_area(void) {
  return tov_open_regular(TOV_ALIVE_SHM_PATH, O_RDONLY);
}

bool tov_sys_was_withdrawn(int fd, int pid) {
  if (!tov_alive_has_slot(pid)) return false;
  uint8_t bits = 0;
  uint8_t seq = 0;
  const off_t map_at = off_t{offsetof(tov_sys_alive_info_t, map)} + pid / BITS_PER_BYTE;
  const off_t seq_at = off_t{offsetof(tov_sys_alive_info_t, seq)} + pid;
  if (tov_sys_pread(fd, &bits, 1, map_at) != 1 || tov_sys_pread(fd, &seq, 1, seq_at) != 1)
    return false;
  return seq == withdrawn_byte((bits & bit_of(pid)) != 0);
}
