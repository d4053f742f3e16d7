// The daemon's process-wide flags.
//
// They live on a low floor because every thread loop and the restart rules read them, while only
// start-up, the closing steps of the threads and the watcher write them. Plain integers with fixed
// names, accessed as relaxed atomics: a reader that sees the old value a moment longer does no
// harm, and `quit` only ever goes from 0 to 1.
#ifndef TOV_CORE_RUN_FLAGS_H
#define TOV_CORE_RUN_FLAGS_H

// 1: all thread loops are to end. Raised with core/run/quit.h, so that all of them hear it.
extern int quit;

// 1 while single processes may escalate to a reload of the unit. It does not govern restarts.
extern int tov_single_ps_ha_enable;

// Monotonic seconds of the daemon's start, or of the last time the switch above went on.
extern int tov_single_ps_ha_enable_time;

inline int tov_flag_get(const int &flag) {
  return __atomic_load_n(&flag, __ATOMIC_RELAXED);
}
inline void tov_flag_set(int &flag, int value) {
  __atomic_store_n(&flag, value, __ATOMIC_RELAXED);
}

#endif  // TOV_CORE_RUN_FLAGS_H
