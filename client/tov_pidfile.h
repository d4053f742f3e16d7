// Registration files: what a registered process leaves on disk for a daemon that starts again.
//
// A process that registers writes /tmp/vsd/<device>/tov/db/<program>.<pid>: its id and its action
// as decimal numbers, a line feed after each, then its command line without one. It then locks the
// whole file (fcntl, write lock) and keeps the descriptor: the lock ends with the process, so that
// whoever gets it knows that the process is gone. A restarted daemon reads the files back.
//
// Locks of this kind belong to the process and go when it closes ANY descriptor of the file, hence
// the rules here: one descriptor a file, kept in a table; no other code in the process opens
// and closes a file that the process holds locked.
//
// The directory is open to everybody, so a name in it can lead anywhere: symbolic links are not
// followed, nothing but regular files is read or written, and no open waits for a peer.
//
// Used by the daemon and, in other people's programs, by the client calls. Any thread.
#ifndef TOV_PIDFILE_H
#define TOV_PIDFILE_H

#include <sys/types.h>

#include "include/tov_registry.h"
#include "include/tov_wire.h"

// Files of the daemon among the registrations, which are none themselves: a registration on its way
// to its name, or a start (proc/claim). Names of registrations end with a process id alone.
#define TOV_DB_INTERIM_PREFIX ".claim."
// One that becomes the registration of what it names, and one whose registration is there already.
#define TOV_DB_KEPT_PREFIX TOV_DB_INTERIM_PREFIX "kept."
#define TOV_DB_NEW_PREFIX TOV_DB_INTERIM_PREFIX "new."

// Builds the name of a registration file in `out` of `size` bytes, cut to fit. The program is the
// command line up to its first blank, and of that what follows the last '/'. (For a program below
// a directory with a blank in its name that gives an odd name, but the same one everywhere.)
void tov_get_db_file_name(int vsd_id, int pid, const char *cmdline, char *out, int size);

// Writes and locks the registration file of `pid`; `action` is RESPAWN or SHELL_RESTART. A file
// that this process registered before is rewritten under its old lock. Created with mode 0777 less
// the umask. A command line is cut at TOV_PROCESS_SIZE - 1 bytes.
// Returns 0, also when the file cannot be written or locked (diagnostic: the registration goes on
// without it); -1 when it cannot be created.
int tov_db_create(int vsd_id, int pid, int action, const char *cmdline);

// Writes the registration file of a request (`vsd_id`, `pid`, `pathname` filled; `type` is a
// TOV_MSG_TYPE) and, for a process of a virtual device, its member file.
// Returns 0 or -1, as tov_db_create().
int tov_mk_pidfile(tov_msg_xtach_s *request, int type);

// Creates the member file of a process in a virtual device; nothing for device 0. Errors are
// ignored: the file only serves the listing.
void save_vsd_flag(int vsd_id, int pid);

// Removes the registration file of a record (`vsd_id`, `pid`, `process`: call it before the id
// changes) and closes this process's descriptor of it, if it wrote the file itself.
// Returns 0, or -1 with errno set.
int tov_db_destroy(const tov_pid_s *record);

// Writes the registration file of a record that has none, on behalf of a task that has no process
// which could, or one that does not register by itself: without lock, and without keeping it open,
// so that the process's own registration replaces it.
// The file is whole from the instant in which it has its name, unless somebody has taken the name
// under which it is written first. Under the registry's lock.
// Returns 0, also when there is a file; -1 with errno set when it cannot be made (the directory is
// gone with its device, the file system is full).
int tov_db_keep(const tov_pid_s *record);

// Lets the registration file of a record stand for the process `to` of its task, under that one's
// name, unless `to` has a file already: the old one goes then. At no time has the task no file, or
// two of which the next daemon would take the older one for a dead process of its own.
// Under the registry's lock, before the record's id changes.
// Where a second file has no room the old one is overwritten; a daemon that is killed in just that
// write may leave a command line with an odd end.
// Returns 0; -1 with errno set when it cannot be written: the old file is as it was, or has the new
// content under its old name.
int tov_db_hand_over(const tov_pid_s *record, pid_t to);

// Gives the file at `path`, from which `record` was read, the name of its registration, if the
// daemon that wrote it was killed in tov_db_hand_over(). Others are left alone.
// Returns false when there is a registration of that name: the file is removed.
bool tov_db_settle(const tov_pid_s *record, const char *path);

// Whether this process wrote the registration file of that name and still holds it. False for a
// file of anybody else's.
bool tov_db_is_own(int vsd_id, int pid, const char *cmdline);

// Reads a registration file into `pid`, `action` and `pathname` of `record`, untouched on failure.
// Only the first 256 bytes count, so long command lines come back cut.
// Returns 0; -1 (with a diagnostic but for the last) when the file cannot be read, does not begin
// with two numbers in range of which the first is above 0, or has no '/' where the command line
// begins. Must not be called for a file that this process holds locked.
int tov_read_pidfile(const char *path, tov_pid_s *record);

// Removes the file that an older version would have written for a record: the same without the
// program name. Returns 0, or -1 with errno set.
int tov_rm_pidfile(const tov_pid_s *record);

// For the child of a fork, which inherits descriptors but no locks: closes the copies, so that the
// table holds nothing any more. The parent's locks stay. Async-signal-safe; needs no lock, because
// only the forking thread exists in the child.
void tov_pidfile_forget_locks(void);

#endif  // TOV_PIDFILE_H
