// Watched threads: registering, staying alive, leaving.
//
// Staying alive must be cheap enough for a program's inner loop, so it is one byte in shared memory
// and no message. Operators can exempt a thread while they debug it; the file that says so is asked
// for each time, because they make it on a running device, and its absence costs one failing
// stat(). Thread and process ids are asked of the kernel each time too: a forked child would
// inherit a cached one.
//
// Threads: the thread calls come from the thread that they name. Only the paths that send a message
// take tov_rpc_lock.
// Losses: without a daemon a registration is lost, and the next sign of life makes it again. A
// withdrawal leaves a mark in the shared memory, which the next daemon finds; a thread whose id has
// no place there is watched on until it ends.
#include <signal.h>
#include <unistd.h>

#include "alive/tov_sys_alive.h"
#include "client/tov_rpc.h"
#include "client/tov_rpc_fork.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_wire.h"
#include "include/tov_xtach.h"
#include "log/tov_dbg.h"

enum { TOV_ODD_PERIOD_S = 180, TOV_ODD_COUNT = 4, TOV_EVEN_PERIOD_S = 120, TOV_EVEN_COUNT = 5 };

namespace {

// What a caller tells about its thread.
struct thread_s {
  pid_t pid;
  pid_t tid;
  unsigned int period_s;
  unsigned int count;
};

}  // namespace

// Returns 0 when the call is meant for the calling thread and names all that is needed, else -1.
static int check_caller(const thread_s &thread) {
  if (thread.pid <= 0 || thread.tid == 0 || thread.period_s == 0 || thread.count == 0) {
    TOV_DBG("parameter error(pid:%d, tid:%d, time:%d, count:%d)!\n", thread.pid, thread.tid,
            static_cast<int>(thread.period_s), static_cast<int>(thread.count));
    return -1;
  }
  const pid_t pid = getpid();
  const pid_t tid = gettid();
  if (thread.pid != pid || thread.tid != tid) {
    TOV_DBG("not cur task reg!(pid:%d, tid:%d, cur_pid:%d, cur_tid:%d)!\n", thread.pid, thread.tid,
            pid, tid);
    return -1;
  }
  return 0;
}

// The payload of a watched thread. The daemon checks once a minute, so it works with two tried
// pairs of period and count; the caller's period only chooses between them, by being odd or even.
static tov_msg_xtach_t thread_payload(const thread_s &thread) {
  const bool odd = thread.period_s % 2 != 0;
  tov_msg_xtach_t payload{};
  payload.pid = thread.tid;
  payload.ppid = thread.pid;
  payload.m_n_counter = odd ? TOV_ODD_COUNT : TOV_EVEN_COUNT;
  payload.m_n_cur_counter = payload.m_n_counter;
  payload.m_n_notify_time = odd ? TOV_ODD_PERIOD_S : TOV_EVEN_PERIOD_S;
  return payload;
}

extern "C" int tov_client_reg_thread_notify(pid_t pid, pid_t tid, unsigned int m_n_notify_time,
                                            unsigned int m_n_counter) noexcept {
  const tov_rpc_call_t call;
  tov_parse_dbg_file();
  const thread_s thread = {pid, tid, m_n_notify_time, m_n_counter};
  if (check_caller(thread) != 0) return -1;

  tov_msg_xtach_t payload = thread_payload(thread);
  const int ret = tov_rpc(TOV_MSG_ACK, nullptr, &payload, sizeof payload, true, true);
  if (ret != 0) TOV_DBG("reg thread notify err(ret:%d)!\n", ret);
  return ret;
}

extern "C" int tov_client_reg_thread_notify_no_proc(pid_t pid, pid_t tid,
                                                    unsigned int m_n_notify_time,
                                                    unsigned int m_n_counter) noexcept {
  signal(SIGABRT, SIG_IGN);
  return tov_client_reg_thread_notify(pid, tid, m_n_notify_time, m_n_counter);
}

// A sign of life as a message, for a thread id that has no place in the shared memory.
static void send_reset(const thread_s &thread) {
  tov_msg_xtach_t payload = thread_payload(thread);
  const int count = pid_reset_counter_in_file(thread.pid, TOV_DEBUG_PID_FILE);
  if (count != 0) {
    payload.m_n_counter = static_cast<unsigned int>(count);
    payload.m_n_cur_counter = payload.m_n_counter;
  }
  // Never acknowledged, and the next sign of life repeats it.
  (void)tov_rpc(TOV_RESET, nullptr, &payload, sizeof payload, false, true);
}

// A sign of life in the shared memory. A thread that is not marked there is unknown to the daemon,
// most likely because the daemon was started anew, and registers again.
static int mark_alive(const thread_s &thread) {
  if (!tov_sys_isreg_alive_info(thread.tid)) {
    TOV_DBG("reg alive info(pid:%d, tid:%d, time:%d, count:%d)!\n", thread.pid, thread.tid,
            static_cast<int>(thread.period_s), static_cast<int>(thread.count));
    return tov_client_reg_thread_notify(thread.pid, thread.tid, thread.period_s, thread.count);
  }
  const int ret = tov_sys_update_alive_seq(thread.tid);
  if (ret != 0) {
    TOV_DBG("update alive err!(pid:%d, tid:%d, ret:%d)!\n", thread.pid, thread.tid, ret);
  }
  return ret;
}

extern "C" int tov_client_reset_thread_notify(pid_t pid, pid_t tid, unsigned int m_n_notify_time,
                                              unsigned int m_n_counter) noexcept {
  const tov_rpc_call_t call;
  const thread_s thread = {pid, tid, m_n_notify_time, m_n_counter};
  if (check_caller(thread) != 0) return -1;
  if (pid_exist_in_file(tid, TOV_DEBUG_PID_FILE) != 0) return 0;
  if (tid < TOV_ALIVE_ID_COUNT) return mark_alive(thread);
  send_reset(thread);
  return 0;
}

extern "C" int tov_client_unreg_thread_notify(pid_t tid) noexcept {
  const tov_rpc_call_t call;
  if (tid == 0) TOV_DBG("parameter error\n");
  // Before the request, which nobody may hear: without a daemon it is lost, and so it may be with
  // one that dies before it has read it. Without the mark the next daemon goes on watching.
  if (tid > 0) (void)tov_sys_mark_withdrawn(tid);
  tov_msg_cons_t request = {.event = TOV_UNREG_THREAD_NOTIFY, .pid = tid};
  (void)tov_rpc(TOV_MSG_CONS, nullptr, &request, sizeof request, true, false);
  return 0;  // a registration that stays is dropped by the daemon once the thread is gone
}
