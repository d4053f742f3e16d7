// Figures and zombies as /proc shows them. Growth counts only beyond a margin, because clients
// come and go while the daemon is measured.
#include "tests/chaos/health.h"

#include <stddef.h>
#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

#include "tests/support/processes.h"

namespace tov_chaos {

namespace fs = std::filesystem;

static constexpr long GROWTH_KIB = 256;
// Clients come and go; a leak comes with each death.
static constexpr size_t GROWTH_DESCRIPTORS = 8;

std::string Usage::text() const {
  return std::to_string(descriptors) + " descriptors, " + std::to_string(resident_kib) + " KiB";
}

Usage usage_of(pid_t pid) {
  Usage usage;
  try {
    usage.descriptors = tov_test::descriptors_of(pid);
  } catch (const std::runtime_error &) {
    return usage;
  }
  usage.resident_kib = atol(tov_test::status_field(pid, "VmRSS").c_str());
  return usage;
}

std::string zombies_of(pid_t parent) {
  std::string found;
  for (const auto &entry : fs::directory_iterator("/proc")) {
    const pid_t pid = atoi(entry.path().filename().c_str());
    if (pid > 0 && tov_test::process_state(pid) == 'Z' &&
        tov_test::status_field(pid, "PPid") == std::to_string(parent))
      found += " " + std::to_string(pid);
  }
  return found;
}

bool has_grown(const Usage &before, const Usage &now) {
  if (now.descriptors > before.descriptors + GROWTH_DESCRIPTORS) return true;
  // A sanitizer keeps what was freed, so its memory says nothing.
  return tov_test::patience() == 1 && now.resident_kib > before.resident_kib + GROWTH_KIB;
}

}  // namespace tov_chaos
