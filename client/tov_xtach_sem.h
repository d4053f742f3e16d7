// The system semaphore: other programs raise it to hold back the countdown of silent threads.
//
// One System V semaphore under the key of "/tmp/.tov_semphore_path" (ftok(3), project id 1). The
// daemon makes it at its first start and only reads it afterwards; it outlives the daemon, and its
// value belongs to whoever raised it. The id is looked up once per process and kept for good, so
// that a removed key file does no harm.
//
// Any thread; no lock.
#ifndef TOV_XTACH_SEM_H
#define TOV_XTACH_SEM_H

// The id, -1 until known. Relaxed atomic accesses only.
extern int g_tov_sem_id;

// Makes the semaphore with mode 0754 and value 0, or finds that it exists and leaves its value.
// Returns 0, or -1 with a diagnostic.
int tov_sem_init(void);

// The id of the existing semaphore, or -1 with a diagnostic. While the kernel lacks memory for the
// key file it tries again each second.
int tov_get_sem_id(void);

// The semaphore's value, or -1 with a diagnostic. Anything but 0 holds the countdown back, a
// failure too.
int tov_get_semval(void);

#endif  // TOV_XTACH_SEM_H
