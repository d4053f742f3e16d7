// The semaphore calls behind the mutex between processes.
#include "alive/sysv_sem.h"

#include <errno.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "util/semun.h"
#include "util/tov_utils.h"

enum { KEY_PROJECT = 1, MODE_EVERYBODY = 0777, VALUE_FREE = 1, RETRY_PAUSE_S = 1 };

// Sets a new semaphore free. Without that no process would ever get it, so a failure removes it.
static int set_free(int sem_id) {
  tov_semun_u value{};
  value.val = VALUE_FREE;
  if (semctl(sem_id, 0, SETVAL, value) == 0) return 0;
  const int cause = errno;
  (void)semctl(sem_id, 0, IPC_RMID);
  errno = cause;
  return -ENXIO;
}

int ras_os_init_mutex_sem(const char *path, int *sem_id) {
  if (path == nullptr || sem_id == nullptr) return -ENOENT;
  const key_t key = ftok(path, KEY_PROJECT);
  if (key == -1) return -ESRCH;

  int id = semget(key, 1, IPC_CREAT | IPC_EXCL | MODE_EVERYBODY);
  int result = 0;
  if (id >= 0) {
    result = set_free(id);
  } else if (errno == EEXIST) {
    id = semget(key, 1, 0);
    if (id < 0) result = -EIO;
  } else {
    result = -EINTR;
  }
  if (result == 0) *sem_id = id;
  return result;
}

// Adds `change` to the semaphore. Returns 0, or -1 with errno.
static int change_by(int sem_id, short change) {
  sembuf operation{};
  operation.sem_op = change;
  operation.sem_flg = SEM_UNDO;
  return semop(sem_id, &operation, 1);
}

int ras_os_lock_mutex_sem(int sem_id) {
  while (change_by(sem_id, -1) < 0) {
    if (errno != EINTR) return -E2BIG;
    safe_sleep(RETRY_PAUSE_S);
  }
  return 0;
}

int ras_os_unlock_mutex_sem(int sem_id) {
  return change_by(sem_id, +1) < 0 ? -ENOEXEC : 0;
}
