#include "core/run/farewell.h"

#include <stdio.h>
#include <unistd.h>
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
