// What messages call a task.
#ifndef TOV_PROC_TASK_NAME_H
#define TOV_PROC_TASK_NAME_H

#include "include/tov_registry.h"

// A task's name in all messages: what follows the last "/" of its whole command line, without
// trailing blanks and tabs. ("/opt/foo -c /etc/x" is thus called "x"; operators' tools know it so.)
// A copy, because `process` itself is a key that is compared and must not change.
struct tov_task_name_s {
  char text[TOV_PROCESS_SIZE];
  explicit tov_task_name_s(const tov_pid_t &record);
};

#endif  // TOV_PROC_TASK_NAME_H
