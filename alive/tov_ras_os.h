// Operating-system primitives: descriptor flags and the hex dump here, shared memory and
// semaphores in the two rooms that this header includes.
//
// Threads: any; no state in this room.
#ifndef TOV_RAS_OS_H
#define TOV_RAS_OS_H

#include "alive/shared_memory.h"  // IWYU pragma: export
#include "alive/sysv_sem.h"       // IWYU pragma: export

// Sets close-on-exec on a descriptor (fcntl F_SETFD). For descriptors that come from elsewhere:
// whatever we open ourselves is born close-on-exec, because another thread may fork between an
// open and this call. Returns 0, or -1 with errno (EBADF for a negative number).
int ras_os_set_fd_close_on_exec(int fd);

// Prints a hex dump of `len` bytes to standard output, 16 bytes a line with their offset and their
// graphic characters. `prefix` names the message. A debugging aid without a caller in the daemon.
void ras_os_dump_msg(const char *prefix, const void *message, unsigned int len);

#endif  // TOV_RAS_OS_H
