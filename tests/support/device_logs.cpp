// What a device says: system log, event logs, console, the daemon's output, sanitizers' reports.
#include <stddef.h>
#include <sys/wait.h>

#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/collector.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "tests/support/root_builder.h"
#include "tests/support/sanitizer_env.h"

namespace tov_test {

static constexpr size_t DUMP_MAX_BYTES = 40'000;  // of one text; the end is the interesting part

static std::string event_path(const std::string &file) {
  return std::string(EVENT_LOG_DIR).append("/").append(file);
}

static bool contains(const std::string &text, const std::string &part) {
  return text.find(part) != std::string::npos;
}

// The nth of `items` whose text contains `part`.
template <typename Item, typename TextOf>
static std::optional<Item> pick(const std::vector<Item> &items, const std::string &part, size_t nth,
                                TextOf text_of) {
  for (const Item &item : items)
    if (contains(text_of(item), part) && --nth == 0) return item;
  return std::nullopt;
}

static const std::string &notice_text(const Notice &notice) {
  return notice.text;
}

static const std::string &line_text(const std::string &line) {
  return line;
}

std::vector<Notice> Device::notices() const {
  return collector_->notices();
}

std::optional<Notice> Device::wait_notice(const std::string &text, Millis limit, size_t nth) const {
  std::optional<Notice> found;
  wait_until([&] { return (found = pick(notices(), text, nth, notice_text)).has_value(); }, limit);
  return found;
}

size_t Device::count_notices(const std::string &text) const {
  const auto all = notices();
  return static_cast<size_t>(std::count_if(
      all.begin(), all.end(), [&](const Notice &notice) { return contains(notice.text, text); }));
}

std::vector<std::string> Device::event_log(const std::string &name) const {
  std::vector<std::string> all;
  for (const std::string &file : list(EVENT_LOG_DIR)) {
    if (!file.starts_with(name)) continue;
    const auto part = lines(event_path(file));
    all.insert(all.end(), part.begin(), part.end());
  }
  // Lines begin with a stamp of fixed width, so their order as texts is their order in time.
  std::stable_sort(all.begin(), all.end(), [](const std::string &a, const std::string &b) {
    return a.compare(0, STAMP_LENGTH, b, 0, STAMP_LENGTH) < 0;
  });
  return all;
}

std::optional<std::string> Device::wait_event(const std::string &name, const std::string &text,
                                              Millis limit, size_t nth) const {
  std::optional<std::string> found;
  wait_until([&] { return (found = pick(event_log(name), text, nth, line_text)).has_value(); },
             limit);
  return found;
}

size_t Device::count_events(const std::string &name, const std::string &text) const {
  const auto all = event_log(name);
  return static_cast<size_t>(std::count_if(
      all.begin(), all.end(), [&](const std::string &line) { return contains(line, text); }));
}

std::string Device::console() const {
  return options_.console == Console::FILE && open_ ? read("/dev/console") : collector_->console();
}

bool Device::wait_console(const std::string &text, Millis limit) const {
  return wait_until([&] { return contains(console(), text); }, limit);
}

bool Device::wait_output(const std::string &text, Millis limit) const {
  return wait_until([&] { return contains(daemon_output(), text); }, limit);
}

std::string Device::sanitizer_reports() const {
  std::string all;
  for (const std::string &file : list(SANITIZER_DIR))
    all += "--- " + file + "\n" + read(std::string(SANITIZER_DIR) + "/" + file);
  return all;
}

static std::string tail(const std::string &text) {
  return text.size() <= DUMP_MAX_BYTES ? text : "[...]" + text.substr(text.size() - DUMP_MAX_BYTES);
}

static void section(std::ostringstream &out, const std::string &title, const std::string &text) {
  if (text.empty()) return;
  out << "== " << title << "\n" << tail(text) << (text.ends_with('\n') ? "" : "\n");
}

static std::string status_text(int status) {
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "exit status " + std::to_string(WEXITSTATUS(status));
}

std::string Device::dump() const {
  std::ostringstream out, parts;
  const auto child = children_.find(daemon_pid_);
  out << "==== device, keeper " << keeper_pid_ << ", daemon " << daemon_pid_;
  if (child != children_.end() && child->second) out << " (" << status_text(*child->second) << ")";
  out << "\n";
  for (const Notice &notice : notices())
    parts << notice.time_ms << " " << notice.text << "\n";
  section(out, "system log", parts.str());
  for (const std::string &file : list(EVENT_LOG_DIR))
    section(out, file, read(event_path(file)));
  for (const std::string &file : list("/data"))
    if (file.starts_with("victim.")) section(out, file, read("/data/" + file));
  section(out, "console", console());
  section(out, "daemon output", daemon_output());
  parts.str("");
  for (const Process &process : processes())
    parts << process.pid << " " << process_state(process.pid) << " " << process.command << "\n";
  section(out, "processes", parts.str());
  section(out, "sanitizer reports", sanitizer_reports());
  return out.str();
}

}  // namespace tov_test
