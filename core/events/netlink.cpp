// The way from a datagram to an entry of the ring. An event is copied out of its datagram, where it
// stands unaligned; each length is checked before what it covers is read.
//
// The thread takes events its own way, beside the given functions: it notes numbers and ends, and
// puts whole records into the ring or none.
#include "core/events/netlink.h"

#include <errno.h>
#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <utility>

#include "core/events/connector.h"
#include "core/events/listing.h"
#include "core/events/numbers.h"
#include "core/events/tov_fifo.h"
#include "core/run/ends.h"
#include "core/run/flags.h"
#include "core/run/known.h"
#include "core/run/loss.h"
#include "core/run/quit.h"
#include "core/run/thread.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "util/kernel_time.h"
#include "util/priority.h"
#include "util/tov_sys.h"

static constexpr char thread_name[] = "tov_process_netlink";

enum {
  RECEIVE_TIMEOUT_MS = TOV_CONNECTOR_TIMEOUT_S * 1000,
  OTHERS_AT_ONCE = 1024,  // read of the second socket for what the first has brought
  OTHERS_MAX = 65536,     // more than its buffer holds
  GAPS_TOGETHER = 64,     // datagrams behind which missing numbers are looked for at the latest
  GAP_MS = 250,           // or so long behind the first that is missing
};
static constexpr int64_t US_PER_S = 1'000'000;
static constexpr int64_t NS_PER_US = 1'000;
static constexpr int64_t STOOD_STILL_US = 1 * US_PER_S;  // so late an event was not read: we slept
static constexpr int64_t ANSWER_US = 5 * US_PER_S;       // longest wait for a subscription's answer
static constexpr int64_t LIST_US = 60 * US_PER_S;  // the list is read anew, whatever a watch says
static constexpr int64_t SILENCE_US = 60 * US_PER_S;  // afterwards we ask whether we still hear

namespace {

enum result_e {
  RESULT_PRIORITY = -1,
  RESULT_RECEIVE = -5,
};

}  // namespace

// ---- one event ------------------------------------------------------------------------------

static void put(const tov_cnmsg_data_t &event) {
  (void)__kfifo_in(&tov_cnmsg_fifo, &event, sizeof event);
  tov_cnmsg_fifo_wake();
}

static void tell_full_ring(const tov_cnmsg_data_t &event) {
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          "TOV: fifo is full,pid:%d %s action will be discard! exit_code=%d \n",
                          event.process_pid, event.what == TOV_EVENT_EXEC ? "exec" : "exit",
                          static_cast<int>(event.exit_code));
}

void tov_send_fifo_cnmsg(uint32_t what, int pid, uint32_t exit_code) {
  const tov_cnmsg_data_t event{what, pid, exit_code};
  if (kfifo_is_full(&tov_cnmsg_fifo)) return tell_full_ring(event);
  put(event);
}

// The data stands unaligned behind the header, and may be shorter than the newest kernel's. What
// lacks is 0. Returns how much there was.
static size_t copy_event(const cn_msg *message, proc_event *event) {
  *event = {};
  const size_t length = std::min<size_t>(message->len, sizeof *event);
  memcpy(event, message->data, length);
  return length;
}

static bool is_exit(const proc_event &event, size_t length) {
  return static_cast<uint32_t>(event.what) == TOV_EVENT_EXIT &&
         length >= offsetof(proc_event, event_data) +
                       offsetof(decltype(proc_event::event_data.exit), exit_signal);
}

// Of interest to the handler, or nothing. The end of a thread is no end of a process.
static std::optional<tov_cnmsg_data_t> of_interest(const proc_event &event, size_t length) {
  constexpr size_t exec_end =
      offsetof(proc_event, event_data) + sizeof(proc_event::event_data.exec);
  const auto &exec = event.event_data.exec;
  const auto &exit = event.event_data.exit;
  if (static_cast<uint32_t>(event.what) == TOV_EVENT_EXEC && length >= exec_end)
    return tov_cnmsg_data_t{TOV_EVENT_EXEC, exec.process_pid, 0};
  if (is_exit(event, length) && exit.process_pid == exit.process_tgid)
    return tov_cnmsg_data_t{TOV_EVENT_EXIT, exit.process_pid, exit.exit_code};
  return std::nullopt;
}

void tov_dispatch_netlink_msg(const struct cn_msg *message) {
  proc_event event;
  const size_t length = copy_event(message, &event);
  if (const auto of = of_interest(event, length))
    tov_send_fifo_cnmsg(of->what, of->process_pid, of->exit_code);
}

// ---- one datagram ---------------------------------------------------------------------------

static bool is_fatal(int error) {
  return error == EBADF || error == ENOTSOCK || error == ENOTCONN || error == ECONNREFUSED;
}

// What tov_recv_netlink_msg() makes of a result of tov_connector_receive().
static int judge(int res) {
  if (res >= 0) return 0;
  TOV_DBG("%s: netlink recvfrom fail: %s\n", "tov_recv_netlink_msg", strerror(-res));
  errno = -res;
  return is_fatal(errno) ? -1 : 0;
}

int tov_recv_netlink_msg(int sock) {
  return judge(tov_connector_receive(sock, 0, tov_dispatch_netlink_msg));
}

// ---- the thread's way -------------------------------------------------------------------------

namespace {

// What the thread knows of its sockets.
class reader_s {
 public:
  // All of them return 0 or the thread's result, with errno.
  int open();
  int take_or_wait();  // takes some datagrams, or waits for one: some seconds at the most

 private:
  void take(const cn_msg *message);
  void take_execution(const tov_cnmsg_data_t &event);
  void follow_list();
  void queue(const tov_cnmsg_data_t &event);
  void note_answer(const proc_event &event);
  int receive(int flags);
  int sleep();
  int wait();
  void hear();
  void catch_up();
  void judge_gaps(int at_most);
  void settle();
  void tell_drops(uint32_t reasons);
  void take_other(const cn_msg *message);
  int receive_others();
  bool read_others(int at_most, bool all);
  int judge_silence();
  bool proves_life();
  bool settles_gaps_later();

  tov_connector_t connector_;
  tov_datagrams_t events_, others_;
  tov_listing_t listing_;
  int64_t list_read_us_ = 0;
  bool others_may_be_listed_ = false;  // of whom the second socket tells
  tov_numbers_t numbers_;
  bool is_first_ = false;         // the next event shows how late it is read
  bool has_stood_still_ = false;  // so late that we have slept
  bool is_read_empty_ = false;    // the first socket, by the last call
  int since_caught_up_ = 0;       // datagrams
  int since_judged_ = 0;          // datagrams, since missing numbers were last looked for
  int64_t gap_since_us_ = 0;      // 0: none is missing

  bool is_reopened_ = false;
  bool is_heard_ = false;  // an event came since the subscription
  int answer_error_ = 0;   // a subscription was refused, perhaps another's; 0: none
  int64_t subscribed_us_ = 0;
  int64_t last_heard_us_ = 0;

  bool has_overflowed_ = false;         // the first socket
  std::optional<uint32_t> drops_told_;  // of all its drops
  int unsettled_ = 0;                   // times of catching up before a gap means something
};

}  // namespace

enum {
  SETTLED_AFTER_OPENING = 1,   // what came before both sockets were bound has been read then
  SETTLED_AFTER_OVERFLOW = 2,  // so has what came before the kernel went on with both of them
};

// The kernel's, as its events have it.
static int64_t now_us() {
  return tov_kernel_clock_us(CLOCK_MONOTONIC);
}

int reader_s::open() {
  if (const int result = tov_connector_open(&connector_); result != 0) return result;
  numbers_.forget();
  unsettled_ = SETTLED_AFTER_OPENING;
  drops_told_ = tov_connector_drops(connector_.events.n);
  is_heard_ = has_overflowed_ = false;
  answer_error_ = 0;
  subscribed_us_ = last_heard_us_ = list_read_us_ = now_us();
  listing_.doubt();
  follow_list();
  return 0;
}

void reader_s::queue(const tov_cnmsg_data_t &event) {
  if (kfifo_len(&tov_cnmsg_fifo) + sizeof event <= size_t{tov_cnmsg_fifo.mask} + 1)
    return put(event);
  tell_full_ring(event);
  tov_loss_tell(TOV_LOSS_EVENTS, 1);
}

// Whoever subscribes, the kernel answers all who listen: an answer cannot be told from another's.
// But any event proves that we hear.
void reader_s::note_answer(const proc_event &event) {
  const bool is_answer = event.what == proc_event::PROC_EVENT_NONE;
  if (is_answer && event.event_data.ack.err != 0) {
    answer_error_ = static_cast<int>(event.event_data.ack.err);
    return;
  }
  is_heard_ = true;
  tov_loss_tell(TOV_LOSS_SUBSCRIBED, 0);
}

// Of a list that has begun to name something: who was executed behind that may be in the second
// socket. That is read when this event and what came with it are done with.
void reader_s::follow_list() {
  listing_.refresh();
  if (listing_.any() == connector_.hears_executions) return;
  tov_connector_hear_executions(&connector_, listing_.any());
  others_may_be_listed_ = listing_.any();
}

// Over whichever socket it came. What a process executes concerns us where programs are listed.
void reader_s::take_execution(const tov_cnmsg_data_t &event) {
  follow_list();
  const pid_t pid = event.process_pid;
  if (listing_.any() && (tov_known_may_be(pid) || listing_.may_be_listed(pid))) queue(event);
}

void reader_s::take(const cn_msg *message) {
  proc_event event;
  const size_t length = copy_event(message, &event);
  if (length < offsetof(proc_event, event_data)) return;
  const auto at_us = static_cast<int64_t>(event.timestamp_ns) / NS_PER_US;
  if (std::exchange(is_first_, false) && at_us > 0 && last_heard_us_ - at_us > STOOD_STILL_US)
    has_stood_still_ = true;
  numbers_.seen(event.cpu, message->seq);
  if (!is_heard_) note_answer(event);
  const auto &exit = event.event_data.exit;
  const bool is_awaited = is_exit(event, length) &&
                          tov_ends_note(exit.process_tgid, exit.process_pid, exit.exit_code, at_us);
  const auto of = of_interest(event, length);
  if (of && of->what == TOV_EVENT_EXEC) {
    take_execution(*of);
  } else if (of && tov_known_may_be(of->process_pid)) {
    queue(*of);
  }
  if (is_awaited) queue({TOV_EVENT_EXIT, exit.process_tgid, exit.exit_code});
}

int reader_s::receive(int flags) {
  const int count =
      events_.receive(connector_.events.n, flags, [this](const cn_msg *message) { take(message); });
  is_read_empty_ = 0 <= count && count < tov_datagrams_t::AT_ONCE;
  since_caught_up_ += std::max(count, 0);
  return count;
}

// With what else there is to tell, so that it is one look.
void reader_s::tell_drops(uint32_t reasons) {
  const std::optional<uint32_t> drops = tov_connector_drops(connector_.events.n);
  if (drops && drops_told_) {
    tov_loss_tell(reasons | TOV_LOSS_EVENTS, uint32_t{*drops - *drops_told_});  // they wrap
  } else {
    tov_loss_tell(reasons | TOV_LOSS_UNCOUNTED, 0);
  }
  drops_told_ = drops;
}

void reader_s::take_other(const cn_msg *message) {
  proc_event event;
  const size_t length = copy_event(message, &event);
  if (length < offsetof(proc_event, event_data)) return;
  numbers_.seen(event.cpu, message->seq);
  const auto of = of_interest(event, length);
  if (of && of->what == TOV_EVENT_EXEC) take_execution(*of);
}

int reader_s::receive_others() {
  return others_.receive(connector_.others.n, MSG_DONTWAIT,
                         [this](const cn_msg *message) { take_other(message); });
}

// Reads the second socket: `all` of it, or as long as numbers are missing. Returns whether it is
// empty.
bool reader_s::read_others(int at_most, bool all) {
  if (connector_.others.n < 0) return true;
  for (int taken = 0; taken < at_most && (all || numbers_.any_missing());) {
    const int count = receive_others();
    const bool is_empty = 0 <= count && count < tov_datagrams_t::AT_ONCE;
    if (is_empty || count == -EAGAIN) return true;
    // What it lost concerns nobody, but those numbers are missing.
    if (count == -ENOBUFS) unsettled_ = SETTLED_AFTER_OVERFLOW;
    taken += std::max(count, 1);
  }
  return false;
}

// Both sockets are read empty. Behind an overflow that of one goes on to be full until then, so the
// next events have gaps before them, too.
void reader_s::settle() {
  (void)read_others(OTHERS_MAX, true);
  if (unsettled_ == SETTLED_AFTER_OVERFLOW) {
    numbers_.forget();
  } else {
    numbers_.forgive();
  }
  unsettled_--;
}

void reader_s::judge_gaps(int at_most) {
  numbers_.mark();
  if (!read_others(at_most, false))
    return;  // nothing is missing any more, or there is more to read
  if (unsettled_ > 0) return settle();
  const uint64_t lost = numbers_.lost();
  if (lost > 0) tov_loss_tell(TOV_LOSS_EVENTS, lost);
}

// Each fork leaves a gap, which the second socket fills: many are looked for together.
bool reader_s::settles_gaps_later() {
  if (gap_since_us_ == 0) gap_since_us_ = last_heard_us_;
  return since_judged_ < GAPS_TOGETHER && last_heard_us_ - gap_since_us_ < GAP_MS * int64_t{1'000};
}

// The first socket is empty: what is missing is in the second one, or lost. An overflow leaves
// gaps, too; it is one loss, and counted by the kernel.
void reader_s::catch_up() {
  if (std::exchange(others_may_be_listed_, false)) (void)read_others(OTHERS_MAX, true);
  const int taken = std::exchange(since_caught_up_, 0);
  const uint32_t reasons =
      std::exchange(has_stood_still_, false) ? uint32_t{TOV_LOSS_STOOD_STILL} : 0;
  if (std::exchange(has_overflowed_, false)) {
    tell_drops(reasons);
    unsettled_ = SETTLED_AFTER_OVERFLOW;
  } else if (reasons != 0) {
    tov_loss_tell(reasons, 0);
  }
  if (unsettled_ > 0) return settle();
  since_judged_ += taken;
  const bool is_gap = numbers_.any_missing() && connector_.is_complete;
  if (is_gap && settles_gaps_later()) return;
  if (is_gap) judge_gaps(OTHERS_AT_ONCE + since_judged_);
  since_judged_ = 0;
  gap_since_us_ = 0;
}

// A new name of this thread is an event.
bool reader_s::proves_life() {
  if (connector_.others.n < 0) {
    (void)tov_sys_set_name(thread_name);
    return receive(MSG_DONTWAIT) > 0;
  }
  (void)read_others(OTHERS_MAX, true);
  (void)tov_sys_set_name(thread_name);
  return receive_others() > 0;
}

// Nothing has come for some seconds: because nothing happens on this machine, or because the kernel
// does not tell us. That is asked for, and after a refusal once more from the beginning.
int reader_s::judge_silence() {
  const int64_t now = now_us();
  if (!is_heard_) {
    if (now - subscribed_us_ < ANSWER_US) return 0;
    errno = answer_error_ != 0 ? answer_error_ : ETIMEDOUT;
    return is_reopened_ ? int{RESULT_RECEIVE} : int{TOV_CONNECTOR_NOT_SUBSCRIBED};
  }
  if (now - last_heard_us_ < SILENCE_US) return 0;
  last_heard_us_ = now;
  if (proves_life()) {
    is_reopened_ = false;
    return 0;
  }
  (void)tov_log_with_type(TOV_LOG_ERROR,
                          "TOV: process events do not come any more, subscribe once more.\n");
  is_reopened_ = true;
  return open() == 0 ? 0 : RESULT_RECEIVE;
}

void reader_s::hear() {
  is_first_ = true;
  last_heard_us_ = now_us();
}

// Sleeps until an event comes, `quit` is raised, the list changes or missing numbers are due.
// Returns what poll(2) says.
int reader_s::sleep() {
  pollfd waited[] = {{connector_.events.n, POLLIN, 0},
                     {tov_quit_fd(), POLLIN, 0},
                     {listing_.watch().changes(), POLLIN, 0},
                     {listing_.watch().mounts(), POLLPRI, 0}};
  const int ready = tov_sys_poll(waited, std::size(waited),
                                 gap_since_us_ != 0 ? int{GAP_MS} : int{RECEIVE_TIMEOUT_MS});
  const bool is_list_old = last_heard_us_ - list_read_us_ >= LIST_US;
  if (is_list_old || waited[2].revents != 0 || waited[3].revents != 0) {
    listing_.doubt();
    list_read_us_ = last_heard_us_;
    follow_list();
  }
  return ready;
}

// Waits for an event or for `quit`; without the latter's descriptor for its flag, in the receive
// before.
int reader_s::wait() {
  catch_up();
  // Also while others keep writing to us: the socket has been read empty.
  if (!is_heard_)
    if (const int result = judge_silence(); result != 0) return result;
  if (tov_quit_fd() < 0) {
    (void)judge(-EAGAIN);  // silence is told about
    return judge_silence();
  }
  const int ready = sleep();
  if (ready > 0) {
    hear();
    return 0;
  }
  if (ready == 0 && gap_since_us_ != 0) {
    last_heard_us_ = now_us();
    return 0;
  }
  // No memory: a bounded wait all the same.
  const int res = ready < 0 ? receive(MSG_WAITFORONE) : -EAGAIN;
  if (judge(res) < 0) return RESULT_RECEIVE;
  return res > 0 ? 0 : judge_silence();
}

// Nothing is waited for before the socket is empty: a storm costs a call for many datagrams.
int reader_s::take_or_wait() {
  const bool may_wait = tov_quit_fd() < 0;
  if (!may_wait && std::exchange(is_read_empty_, false)) return wait();
  const int res = receive(may_wait ? MSG_WAITFORONE : MSG_DONTWAIT);
  if (res == -EAGAIN) return wait();
  if (res == -ENOBUFS) has_overflowed_ = true;
  if (may_wait) last_heard_us_ = now_us();
  return judge(res) < 0 ? RESULT_RECEIVE : 0;
}

// Sets the thread and its sockets up. Returns 0, or the result code of the step that failed.
static int begin(reader_s *reader) {
  errno = tov_set_priority(TOV_RT_PRIORITY);
  return errno != 0 ? RESULT_PRIORITY : reader->open();
}

void *tov_process_netlink(void *) {
  if (tov_core_thread_name(thread_name) < 0) {
    TOV_DBG("%s: %s\n", thread_name, strerror(errno));
    return nullptr;
  }
  int result = 0, saved_errno = 0;
  {
    reader_s reader;
    errno = 0;
    result = begin(&reader);
    while (result == 0 && !tov_flag_get(quit))
      result = reader.take_or_wait();
    saved_errno = errno;
  }
  tov_core_thread_end(thread_name, result, saved_errno);
  return nullptr;
}
