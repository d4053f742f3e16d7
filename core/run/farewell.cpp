// Leaving without destructors, and what instrumented builds still have to write before that.
#include "core/run/farewell.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <new>

#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#ifdef TOV_SANITIZE_ADDRESS
#include <sanitizer/lsan_interface.h>
#endif
#ifdef TOV_COVERAGE
extern "C" void __gcov_dump(void);
#endif

void tov_core_leave(int status) {
  (void)fflush(stdout);
#ifdef TOV_COVERAGE
  __gcov_dump();
#endif
#ifdef TOV_SANITIZE_ADDRESS
  __lsan_do_leak_check();
#endif
  _exit(status);
}

static pid_t daemon_pid;  // written before the threads start

// Whether the uncaught exception is a lack of memory. Rethrown, because only so its kind shows.
static bool lacks_memory() {
  if (std::current_exception() == nullptr) return false;
  try {
    throw;
  } catch (const std::bad_alloc &) {
    return true;
  } catch (...) {
    return false;
  }
}

// In whichever thread it was, with whatever locks that one holds: takes none of ours and allocates
// nothing. Without this an exception would leave the thread's body, or the alarm's handler, and the
// process would end with no word.
[[noreturn]] static void end_without_memory() {
  std::set_terminate(abort);  // the platform's writer may lack memory as well
  if (!lacks_memory()) abort();
  if (getpid() != daemon_pid) _exit(1);  // a child: its end is no news of ours
  static constexpr const char *said[] = {"No memory is left, tov will be restart.\n", nullptr};
  tov_dbg_print_raw(__FILE_NAME__, __LINE__, said);
  (void)tov_log_with_type(TOV_LOG_ERROR, "%s", said[0]);
  tov_log_flush_and_wait();
  tov_core_leave(1);
}

void tov_core_end_without_memory(void) {
  daemon_pid = getpid();
  std::set_terminate(end_without_memory);
}
