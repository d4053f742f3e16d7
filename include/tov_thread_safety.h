/*
 * Which lock guards what, said so that a compiler can check it.
 *
 * clang compares these words with what each function really holds (script/lib/locks, part of
 * script/lint): a guarded variable that is touched without its lock, a function that is called
 * without the lock that it asks for, a lock taken twice, not released or in the wrong order are
 * errors there. Every other compiler, and C, sees nothing.
 *
 * A lock is named by an expression as its user would write it: `tov_chains`, `*chains`,
 * `tov_rpc_lock`. The analysis looks at one function at a time and believes what is said of the
 * others.
 */
#ifndef TOV_THREAD_SAFETY_H
#define TOV_THREAD_SAFETY_H

#if defined(__clang__) && defined(__cplusplus)
#define TOV_THREAD_SAFETY_(word) __attribute__((word))
#else
#define TOV_THREAD_SAFETY_(word)
#endif

/* A type whose values are locks; `kind` stands in the messages. */
#define TOV_CAPABILITY(kind) TOV_THREAD_SAFETY_(capability(kind))

/* A class that holds a lock for as long as it lives. */
#define TOV_SCOPED_CAPABILITY TOV_THREAD_SAFETY_(scoped_lockable)

/* A variable or field that is read and written under this lock only. */
#define TOV_GUARDED_BY(lock) TOV_THREAD_SAFETY_(guarded_by(lock))

/* A lock that is taken before these others, when they are held together. */
#define TOV_ACQUIRED_BEFORE(...) TOV_THREAD_SAFETY_(acquired_before(__VA_ARGS__))

/* A function whose caller holds the locks; one that takes them and returns with them held; one that
 * gives them back. */
#define TOV_REQUIRES(...) TOV_THREAD_SAFETY_(requires_capability(__VA_ARGS__))
#define TOV_ACQUIRE(...) TOV_THREAD_SAFETY_(acquire_capability(__VA_ARGS__))
#define TOV_RELEASE(...) TOV_THREAD_SAFETY_(release_capability(__VA_ARGS__))

/* A function whose return means that the lock is held: its caller has shown a guard. */
#define TOV_ASSERT_CAPABILITY(lock) TOV_THREAD_SAFETY_(assert_capability(lock))

/* A function that takes the locks itself and must not be called with them held, as it would wait
 * for its own caller. */
#define TOV_EXCLUDES(...) TOV_THREAD_SAFETY_(locks_excluded(__VA_ARGS__))

/* A function that the analysis passes over. The reason stands beside each use. */
#define TOV_NO_THREAD_SAFETY TOV_THREAD_SAFETY_(no_thread_safety_analysis)

#endif /* TOV_THREAD_SAFETY_H */
