// Record memory: a named shared memory object, mapped whole.
//
// An object of this kind may be open to every user of the machine, and any of them can cut it
// short; the next touch of the mapping beyond its end is then a SIGBUS. Two ways around that are
// offered beside the mapping: the descriptor, which stays open and lets read(2) and write(2) fail
// instead, and ras_os_restore_record_memory(), which gives a cut object its length back.
//
// The negative results are the system's errno constants used as plain distinct codes; each stands
// for one step, and the real errno comes out separately.
//
// Threads: any; a handle belongs to its caller. Linked into the client library as well.
#ifndef TOV_ALIVE_SHARED_MEMORY_H
#define TOV_ALIVE_SHARED_MEMORY_H

#include <stdint.h>
#include <sys/types.h>

typedef struct ras_os_recordm_s {
  char *name;     // owned copy of the object's name
  void *addr;     // mapping, shared, read and write
  uint32_t size;  // bytes mapped: what was asked for, up to a whole number of pages
  int fd;         // of the object, close-on-exec; open while mapped
  dev_t dev;      // device and inode tell whether `fd` is still ours: a host program that makes
  ino_t ino;      // itself a daemon may have closed it and got the number again
} ras_os_recordm_t;

// Opens the object `name` ("/..."), or creates it with mode 0777 less the umask, gives it the
// length `size` rounded up to whole pages - whatever length it had - and maps it.
//   err  receives the errno of a failure, else 0
// Returns 0 with the handle filled, otherwise the handle is untouched and the result is
//   -1       an argument is null or `size` is 0
//   -ESRCH   no memory for the name
//   -EINTR   the object can be neither opened nor created
//   -EIO     the page size is unknown, or the object cannot be sized
//   -ENXIO   it cannot be mapped
// After the last two the object is removed, also when it existed before.
int ras_os_init_record_memory(const char *name, uint32_t size, ras_os_recordm_t *recordm, int *err);

// Copy the first `len` bytes out of, or `len` bytes to the start of, the object. They go through
// the descriptor, so a cut object is no danger: what is missing reads as zero, what is written
// lengthens it again. (Through the mapping if the descriptor is no longer ours.)
// Return 0; -1 when an argument is null, `len` is 0 or above the mapped size, or the object cannot
// be read or written. The write sets *err: 0 or the errno.
int ras_os_read_record_memory(const ras_os_recordm_t *recordm, uint8_t *buf, uint32_t len);
int ras_os_write_record_memory(ras_os_recordm_t *recordm, const uint8_t *buf, uint32_t len,
                               int *err);

// Unmaps the object, closes its descriptor and removes its name; other processes keep what they
// have mapped.
//   err  receives the errno of a failure, else 0
// Returns 0, -1 (null argument), -E2BIG (cannot be unmapped; nothing done) or -ENOEXEC (the name
// cannot be removed; the handle keeps it, everything else is released).
int ras_os_close_record_memory(ras_os_recordm_t *recordm, int *err);

// Gives an object that was cut short its length back; the missing part comes back as zeroes. One
// fstat(2) when nothing is amiss.
// Returns 0, -EBADF (the handle's descriptor is no longer ours: the length is not known) or -EIO
// (too short, and cannot be lengthened). Any user may cut it again at once: this heals, it does
// not protect.
int ras_os_restore_record_memory(const ras_os_recordm_t *recordm);

#endif  // TOV_ALIVE_SHARED_MEMORY_H
