// What semctl(2) takes as its last argument; the C library leaves the definition to the caller.
#ifndef TOV_UTIL_SEMUN_H
#define TOV_UTIL_SEMUN_H

#include <sys/sem.h>

union tov_semun_u {
  int val;
  semid_ds *buf;
  unsigned short *array;
};

#endif  // TOV_UTIL_SEMUN_H
