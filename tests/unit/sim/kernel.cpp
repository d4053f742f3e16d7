// The simulated kernel: time and failures.
#include "tests/unit/sim/kernel.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>

#include <algorithm>
#include <functional>
#include <utility>

namespace tov_test {

static constexpr int64_t US_PER_S = 1'000'000;

kernel_s &kernel() {
  static kernel_s the_one;
  return the_one;
}

void boot() {
  kernel() = kernel_s();
}

kernel_s::kernel_s() {
  tree_[""] = make("", S_IFDIR | 0755);
  for (const char *dir : {"/proc", "/tmp", "/etc", "/dev", "/run"})
    make_dir(dir);
  make_device("/dev/console");
  write_file("/proc/sys/kernel/randomize_va_space", "2\n");
  for (int fd = 0; fd < 3; fd++)
    files_[fd] = open_file_s(inode_at("/dev/console"), "/dev/console", O_RDWR);
  set_next_pid(SELF);
  start({"/usr/sbin/under_test"});
  set_next_pid(1000);
}

// ---- time -----------------------------------------------------------------------------------

void kernel_s::after(int64_t span_us, std::function<void()> what) {
  events_.emplace(now_us_ + span_us, std::move(what));
}

void kernel_s::interrupt_after(int64_t span_us) {
  after(span_us, [this] { signals_++; });
}

kernel_s::wait_e kernel_s::wait(int64_t span_us, const std::function<bool()> &ready,
                                int64_t *left_us) {
  const bool limited = span_us >= 0;
  const int64_t end = now_us_ + span_us;
  const int signals_before = signals_;
  wait_e result = READY;
  while (!ready()) {
    if (signals_ != signals_before) {
      result = INTERRUPTED;
      break;
    }
    if (events_.empty() && !limited) throw stuck_s("a wait that nothing ends");
    if (limited && (events_.empty() || events_.begin()->first > end)) {
      now_us_ = std::max(now_us_, end);
      result = TIMED_OUT;
      break;
    }
    auto event = events_.extract(events_.begin());
    now_us_ = std::max(now_us_, event.key());
    event.mapped()();
  }
  if (left_us != nullptr) *left_us = std::max<int64_t>(end - now_us_, 0);
  // The call has returned; now the handler runs, and what it takes is not part of the call.
  while (alarms_to_handle_ > 0) {
    alarms_to_handle_--;
    if (on_alarm) on_alarm(SIGALRM);
  }
  return result;
}

// Rounded as alarm(2) does it: never to 0 while one is pending.
unsigned int kernel_s::alarm_left_s() const {
  if (alarm_due_us_ == 0) return 0;
  const int64_t left_us = alarm_due_us_ - now_us_;
  return static_cast<unsigned int>(std::max<int64_t>((left_us + US_PER_S / 2) / US_PER_S, 1));
}

unsigned int kernel_s::set_alarm(unsigned int seconds) {
  const unsigned int before = alarm_left_s();
  const int generation = ++alarm_generation_;
  const int64_t span_us = int64_t{seconds} * US_PER_S;
  alarm_due_us_ = seconds == 0 ? 0 : now_us_ + span_us;
  if (seconds != 0) after(span_us, [this, generation] { ring(generation); });
  return before;
}

void kernel_s::ring(int generation) {
  if (generation != alarm_generation_) return;  // armed anew or disarmed meanwhile
  alarm_due_us_ = 0;
  alarms++;
  signals_++;
  alarms_to_handle_++;
}

// ---- failures -------------------------------------------------------------------------------

void kernel_s::fail(call_e kind, int nth, int error) {
  plans_[{kind, made_[kind] + nth}].error = error;
}

void kernel_s::fail_any(int nth, int error) {
  plans_[{CALL_COUNT, made_in_all_ + nth}].error = error;
}

void kernel_s::before(call_e kind, int nth, std::function<void()> what) {
  plans_[{kind, made_[kind] + nth}].what = std::move(what);
}

bool kernel_s::enter(call_e kind) {
  int error = 0;
  for (const auto &key : {std::pair<int, int>{kind, ++made_[kind]}, {CALL_COUNT, ++made_in_all_}}) {
    const auto found = plans_.find(key);
    if (found == plans_.end()) continue;
    const plan_s plan = std::move(found->second);
    plans_.erase(found);
    if (plan.what) plan.what();
    if (plan.error != 0) error = plan.error;
  }
  if (error == 0) return true;
  errno = error;
  return false;
}

}  // namespace tov_test
