// Making, finding and reading the system semaphore.
//
// Threads: main makes it before the others start, the watchdog reads it.
#include "client/tov_xtach_sem.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/regular_file.h"
#include "util/semun.h"
#include "util/tov_utils.h"

enum { KEY_PROJECT = 1, SEM_MODE = 0754, RETRY_PAUSE_S = 1 };

int g_tov_sem_id = -1;

static int cached_id(void) {
  return __atomic_load_n(&g_tov_sem_id, __ATOMIC_RELAXED);
}

static void cache_id(int id) {
  __atomic_store_n(&g_tov_sem_id, id, __ATOMIC_RELAXED);
}

static tov_fd_t open_key_file(void) {
  return tov_fd_t(tov_open_or_make([](int more_flags) {
    return tov_open_regular(TOV_SEM_KEY_FILE, O_RDWR | more_flags, SEM_MODE);
  }));
}

// Gives a new semaphore its value; without one it is removed again.
static int set_zero(int id) {
  const tov_semun_u value{};
  if (semctl(id, 0, SETVAL, value) == 0) return 0;
  TOV_DBG("Set tov sem initial value failed: %s.", strerror(errno));
  (void)semctl(id, 0, IPC_RMID);
  return -1;
}

int tov_sem_init(void) {
  if (open_key_file().n < 0) {  // closed at once: only the file's existence matters
    TOV_DBG("Open file %s failed: %s.", TOV_SEM_KEY_FILE, strerror(errno));
    return -1;
  }
  const key_t key = ftok(TOV_SEM_KEY_FILE, KEY_PROJECT);
  if (key == -1) {
    TOV_DBG("Get sem file key failed: %s.", strerror(errno));
    return -1;
  }
  const int id = semget(key, 1, IPC_CREAT | IPC_EXCL | SEM_MODE);
  if (id >= 0) {
    cache_id(id);
    return set_zero(id);
  }
  if (errno == EEXIST) {
    TOV_DBG("System tov semaphore already inited.");
    return 0;
  }
  TOV_DBG("Get tov sem on init failed: %s.", strerror(errno));
  return -1;
}

int tov_get_sem_id(void) {
  if (cached_id() != -1) return cached_id();

  key_t key = ftok(TOV_SEM_KEY_FILE, KEY_PROJECT);
  while (key == -1 && errno == ENOMEM) {
    safe_sleep(RETRY_PAUSE_S);
    key = ftok(TOV_SEM_KEY_FILE, KEY_PROJECT);
  }
  if (key == -1) {
    TOV_DBG("Get sem file key failed: %s.", strerror(errno));
    return -1;
  }
  const int id = semget(key, 1, 0);
  if (id < 0) {
    TOV_DBG("Get tov sem failed: %s.", strerror(errno));
    return -1;
  }
  cache_id(id);
  return id;
}

int tov_get_semval(void) {
  const int id = tov_get_sem_id();
  if (id < 0) {
    TOV_DBG("tov get semid failed!\n");
    return -1;
  }
  const int value = semctl(id, 0, GETVAL);
  if (value < 0) {
    TOV_DBG("Get tov sem count failed: %s.", strerror(errno));
    return -1;
  }
  return value;
}
