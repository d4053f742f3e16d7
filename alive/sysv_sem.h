// A mutex between processes, made of one System V semaphore.
//
// For programs of the device that need a lock in common; the daemon itself uses none. Each
// operation is undone by the kernel when its process ends (SEM_UNDO): a holder that is killed
// gives the lock back, and what it guarded is then in whatever state the holder left it.
//
// The negative results are the system's errno constants used as plain distinct codes; each stands
// for one step and says nothing about the real errno, which is left set.
//
// Any thread; but the undo belongs to the process, so lock and unlock in the same one.
#ifndef TOV_ALIVE_SYSV_SEM_H
#define TOV_ALIVE_SYSV_SEM_H

// Makes the semaphore whose key is that of the file `path` (ftok(3), project id 1), free, with
// mode 0777; one that exists is used as it is.
//   sem_id  receives the id, on success only
// Returns 0 or
//   -ENOENT  an argument is null
//   -ESRCH   there is no key: the file does not exist
//   -ENXIO   a new semaphore could not be set free; it is removed again
//   -EIO     it exists but cannot be opened
//   -EINTR   it cannot be made for another reason
int ras_os_init_mutex_sem(const char *path, int *sem_id);

// Waits for the lock, without limit; after a signal it waits on one second later.
// Returns 0 or -E2BIG (no such semaphore, no permission, removed while waiting).
int ras_os_lock_mutex_sem(int sem_id);

// Gives the lock back. Returns 0 or -ENOEXEC.
int ras_os_unlock_mutex_sem(int sem_id);

#endif  // TOV_ALIVE_SYSV_SEM_H
