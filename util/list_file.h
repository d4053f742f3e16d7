// Which executable a process runs, and whether a list file names it.
//
// A list file (/etc/tov/third_part_proc) holds a program path per line and ends each line in a
// word, what to do for that program. It is looked up for every program that starts on the machine
// and read anew each time: operators edit it under the running daemon.
//
// Any thread; no lock, no state. Nothing but the last function allocates.
#ifndef TOV_UTIL_LIST_FILE_H
#define TOV_UTIL_LIST_FILE_H

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

// Reads the link /proc/<pid>/exe into `buf` of `size` bytes, zeroed first; no terminator is added
// beyond the zeroing. Returns 1, or 0 when the link cannot be read (kernel threads, zombies,
// processes that are gone).
int pid_to_proc(pid_t pid, char *buf, int size);

// Looks a program up in a list file: the first line that contains `name` anywhere decides, also
// when `name` is only a part of a longer path there. What follows the last blank of that line -
// line end included - is copied to `out` (at most size - 1 bytes). Lines are read in pieces of up
// to 1023 bytes, each a line of its own.
// Returns 1; 0 when no line matches, the matching line has no blank or `name` is empty (`out` is
// empty then), or when the file cannot be opened (`out` is untouched).
int tov_proc_in_tovdb(const char *list_path, const char *name, char *out, int size);

// The same for the executable of a process: 0, with `out` untouched, also when it cannot be read.
int tov_pid_in_tovdb(pid_t pid, const char *list_path, char *out, int size);

// What the lines of a list file name: each without its last word. Allocates. Empty when there is
// none.
std::vector<std::string> tov_commands_in_tovdb(const char *list_path);

// The lines of a list file, whole, in the pieces in which they are searched; empty ones are left
// out. Allocates. None when there is no file; nothing (with errno) when there is one that cannot be
// read.
std::optional<std::vector<std::string>> tov_lines_in_tovdb(const char *list_path);

#endif  // TOV_UTIL_LIST_FILE_H
