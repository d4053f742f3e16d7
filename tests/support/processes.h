// Processes seen from outside: who lives in a namespace, who is alive, waiting for a condition.
//
// Everything is read from /proc at the moment of the call; a process id may be reused between two
// calls, so whoever signals goes through a process descriptor (see end_processes_in).
// Any thread; nothing here keeps state.
#ifndef TOV_TEST_PROCESSES_H
#define TOV_TEST_PROCESSES_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace tov_test {

using Millis = std::chrono::milliseconds;

// For what comes at once, except where two processors serve a build and eight tests besides.
inline constexpr Millis PATIENT_MS{30'000};

// Names one mount namespace: the file that /proc/PID/ns/mnt leads to.
struct NamespaceId {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const NamespaceId &) const = default;
};

// The mount namespace a process lives in; empty when the process is gone or a mere zombie.
// Looks at the other threads when the first one has ended: such a process is alive.
std::optional<NamespaceId> mount_namespace_of(pid_t pid);

// Every living process of a namespace.
std::vector<pid_t> processes_in(const NamespaceId &where);

// Kills every process of a namespace but `spare` and waits until none is left.
//   machine  the namespace of the machine itself: throws std::logic_error when `where` is that
//            (process 1 cannot be asked for it, it may be out of reach even for root)
// Returns how many were still there when `limit` ended (0 is success).
size_t end_processes_in(const NamespaceId &where, const NamespaceId &machine, pid_t spare,
                        Millis limit);

// The state letter of /proc/PID/stat, or 0 when there is no such process.
char process_state(pid_t pid);

// When it started, in clock ticks since boot; 0: nobody has the id.
uint64_t start_of(pid_t pid);

// True for an existing process that is not a zombie. A process whose first thread ended while
// others run shows as a zombie in its state letter and still counts as alive.
bool process_lives(pid_t pid);

// Words of the command line joined by single blanks, empty when gone.
std::string command_line(pid_t pid);

// A field of /proc/PID/status, without its name and blanks; empty when absent.
std::string status_field(pid_t pid, const std::string &field);

// Kilobytes that a process holds, the kernel's own sum over all its mappings: what the status file
// says may lag behind by some hundreds. Throws std::runtime_error when it is gone: a 0 would pass
// as a process that holds less than before.
uint64_t resident_kb(pid_t pid);

// How many descriptors it has open, those only that lead to a name with `part` in it. Throws
// likewise.
size_t descriptors_of(pid_t pid, const std::string &part = "");

// `prefix` followed by the caller's process id: processes are visible from every device at once,
// so a name that a test looks for must be its own.
std::string unique_name(const std::string &prefix);

// CLOCK_MONOTONIC, never scaled in a test program.
int64_t monotonic_ns();

// How much longer than on a plain build every time limit of this build lasts (sanitizers are slow).
int patience();

// Asks every 2 ms until the answer is yes or `limit` (times patience()) is over.
// Returns the last answer.
bool wait_until(const std::function<bool()> &holds, Millis limit);

// A whole small file of the machine; empty when it cannot be read.
std::string read_small_file(const std::string &path);

}  // namespace tov_test

#endif  // TOV_TEST_PROCESSES_H
