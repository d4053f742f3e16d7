// The list of third-part programs: programs that cannot be linked with the client library.
// The daemon registers them on their behalf when they are executed.
#ifndef TOV_CORE_THIRD_PART_H
#define TOV_CORE_THIRD_PART_H

// Writes /etc/tov/third_part_proc anew: one line for each file in /etc/tov/proc, in directory
// order, made of up to 1023 bytes of the file's content and a line feed. Failures leave the list
// short or untouched and print a diagnostic. Start-up only.
void tov_third_part_proc_init(void);

#endif  // TOV_CORE_THIRD_PART_H
