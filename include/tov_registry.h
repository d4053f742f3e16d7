/*
 * The daemon's records: supervised processes and watched threads, the registries that link them,
 * process events, and the values of diagnostic switches and event logs.
 *
 * Inside of the daemon only; nothing of it is installed. Plain data for C and C++.
 */
#ifndef TOV_REGISTRY_H
#define TOV_REGISTRY_H

#include <pthread.h> /* IWYU pragma: keep */
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#include "tov_thread_safety.h"
#include "tov_wire.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- diagnostics ---------------------------------------------------------------------------- */

/* Values of a diagnostic switch. Any value but TOV_DBG_END turns all diagnostics of its module on;
 * the file that sets the switches may hold any number, hence the plain int. */
enum tov_dbg_e {
  TOV_DBG_VERBOSE = 0,
  TOV_DBG_DETAIL = 1,
  TOV_DBG_WARN = 2,
  TOV_DBG_ERROR = 3,
  TOV_DBG_END = 4 /* quiet */
};
typedef int tov_dbg_t;

enum {
  TOV_MODULE_PUB = 0,   /* the daemon, its command line and the client library */
  TOV_MODULE_ALIVE = 1, /* the shared area of thread liveness */
  TOV_MODULE_LIB = 2,   /* read from the file; no diagnostic asks for it */
  TOV_MODULE_END = 3
};

/* ---- event logs ----------------------------------------------------------------------------- */

typedef enum tov_log_type_e {
  TOV_LOG_KILL = 0,        /* hung threads whose process was killed */
  TOV_LOG_RESTART = 1,     /* restarts and self-checks */
  TOV_LOG_RUN_EVENT = 2,   /* start of the daemon, new process ids, deliberate stops */
  TOV_LOG_ERROR = 3,       /* failures of the daemon itself */
  TOV_LOG_REG_ALIVE = 4,   /* threads that register for liveness watching */
  TOV_LOG_REG_RESTART = 5, /* processes that register an exit action */
  TOV_LOG_TYPE_NUM = 6
} TOV_LOG_TYPE;

/* ---- registry ------------------------------------------------------------------------------- */

/* Intrusive lists, linked at the head. A node that was removed carries poison in both links, so
 * that a use after removal faults at an address one recognises. */
#define TOV_LIST_POISON_NEXT 0x100100
#define TOV_LIST_POISON_PREV 0x200200

struct tov_hlist_node_s {
  struct tov_hlist_node_s *next;
  struct tov_hlist_node_s **pprev; /* the pointer that points to this node */
};

struct tov_hlist_head_s {
  struct tov_hlist_node_s *first;
};

struct tov_list_head_s {
  struct tov_list_head_s *next;
  struct tov_list_head_s *prev;
};

enum {
  TOV_PROCESS_SIZE = 4096, /* bytes of `process`, terminator included */
  TOV_PID_BUCKETS = 256
};

/* Which process an id stands for, and what it executes; util/identity.h. Zeroed: not known. */
typedef struct tov_identity_s {
  uint64_t started; /* clock ticks since boot; 0: not known; TOV_NEVER_STARTED: no process has it */
  uint64_t stack;   /* where the stack of its program begins; 0: not known */
  uint64_t exe_dev; /* of its executable; with inode 0 not known */
  uint64_t exe_ino;
  uint64_t session; /* id of its session, when it was read; 0: not known */
} tov_identity_t;
#define TOV_NEVER_STARTED UINT64_MAX

/* Bits of the field `flags`. */
enum {
  TOV_FLAG_STARTED = 1,   /* went through a start procedure: the other of two duplicates is kept */
  TOV_FLAG_SELF_CHECK = 2 /* suspended; waits for the self-check alarm */
};

/* What a record waits for; but for the first two a restart is under way. */
enum {
  TOV_WAIT_NONE,   /* nothing */
  TOV_WAIT_END,    /* until it is certain that its process has ended, or lives */
  TOV_WAIT_TIME,   /* until `restart_time` is over */
  TOV_WAIT_LOOK,   /* for the look whether a listed program runs again by itself */
  TOV_WAIT_FORK,   /* until forks succeed, for its turn */
  TOV_WAIT_SEARCH, /* for the search of the process that is to be supervised */
  TOV_WAIT_LOCK,   /* deferred: until its registration file is unlocked */
};

/* Whether a listed program runs again by itself. */
enum { TOV_LOOKED_NOT_YET, TOV_LOOKED_RUNS, TOV_LOOKED_RUNS_NOT };

/* How a process ended, as far as it is known. */
enum { TOV_ENDED_UNKNOWN, TOV_ENDED_WELL /* with 0 */, TOV_ENDED_BADLY };

/* What a record waits for, and a restart under way, core/registry/record.h. Zeroed, there is none.
 */
typedef struct tov_start_s {
  struct tov_list_head_s link; /* in the order of deadlines; zeroed while it does not wait */
  uint64_t number;             /* of this wait among all since the daemon's start */
  int wait;                    /* TOV_WAIT_* */
  int64_t due_us;              /* monotonic microseconds: when it goes on */
  int occasion;                /* who asked for it, core/policy/revive.h */
  int vsd_no;                  /* device of the dead process, asked once at its death */
  int waited;                  /* 1: `restart_time` is waited for, or over */
  int announced;               /* 1: what is said before a restart has been said */
  int silent;                  /* 1: the marker asked for no announcement */
  int slot;                    /* of its lines in the journal, 0: none */
  int listed;                  /* 1: the process to supervise is searched for */
  int followed;                /* 1: the child is the last daemon's */
  pid_t forked;                /* the child; below 1: none */
  uint64_t forked_started;     /* its start, tov_identity_t */
  tov_identity_t executed;     /* the child when it had executed its program; zeroed: not known */
  int looked;                  /* TOV_LOOKED_*: what the look said */
  pid_t runs_as;               /* the process that it found, */
  tov_identity_t runs;         /* which one that is, */
  int runs_on;                 /* and 1: it comes from the dead one: it goes on with its burst */
  int scans;                   /* of /proc, made so far */
  int child_executed;          /* 1: the child's execution was heard meanwhile */
  int child_ended;             /* 1: the child's exit was heard meanwhile, */
  int child_code;              /* with this wait status */
  int end_known;               /* TOV_WAIT_END: 1: a wait status was reported, */
  int end_code;                /* this one, */
  int end_force;               /* with this haste, core/policy/exit.h */
  int end_asked;               /* how often the kernel was asked whether it is true */
  int end_seen;                /* 1: it is; the last thread's event is given time to come */
} tov_start_t;

/* One supervised process or one watched thread. All fields are guarded by the lock of the registry
 * that links the record; until it is linked the record belongs to its maker alone. */
typedef struct tov_pid_s {
  pid_t pid;                /* of the process; in `tov_alive_chains` of the thread */
  pid_t ppid;               /* in `tov_alive_chains` the process that owns the thread */
  int vsd_id;               /* virtual device, 0 to 15 */
  int alarm_wait_flag;      /* 1: suspended until the self-check alarm, exits are not acted on */
  unsigned int m_n_counter; /* thread watch: periods that may be missed */
  unsigned int m_n_cur_counter;      /* thread watch: what is left of them */
  unsigned int m_n_notify_time;      /* thread watch: period in seconds */
  unsigned int m_n_cur_notify_time;  /* thread watch: seconds since the last sign of life */
  unsigned int m_n_laster_alive_seq; /* thread watch: last sequence byte seen */
  int restart_time;                  /* seconds to wait before a restart */
  char process[TOV_PROCESS_SIZE];    /* command line; key of the search for duplicates */
  char grp[TOV_GRP_SIZE];            /* label of the client */
  int action;                        /* NORMAL_EXIT to IGNORE_EXIT */
  int flags;                         /* TOV_FLAG_* */
  time_t tm; /* monotonic seconds: start of the restart burst, or of the suspension */
  int count; /* restarts in the current burst */
  char cmdline[TOV_PATHNAME_SIZE];
  char pathname[TOV_PATHNAME_SIZE]; /* start script, or after a rebuild the command line */
  struct tov_hlist_node_s pidlink;  /* in the bucket of the registry that owns the record */
  struct tov_list_head_s pidlist;   /* points to itself while the record is linked */
  int con_pull_flag;                /* self-checks in a row; read by the reload rule */
  time_t con_tm;                    /* time of the last of them */
  time_t ill_tm;                    /* time of the last exit with a core dump, 0: none */
  int exit_signal;                  /* wait status of the last exit; 0 also where it is not known */
  int exit_how;                     /* TOV_ENDED_*: the last exit */
  int force_restart;                /* 1: no longer wait for the lock on the registration file */
  time_t delay_tm;                  /* when the record entered `tov_chains_delay` */
  time_t first_tm;                  /* first restart of the burst; outlasts a suspension */
  int stat_check_cnt;               /* sweeps in a row that did not find the process */
  unsigned int claim;               /* file that its process removes first, proc/claim.h; 0: none */
  tov_start_t start;                /* the restart under way, if there is one */
  uint64_t serial;                  /* of this record among all since the daemon's start */
  tov_identity_t identity;          /* of the process `pid`; in `tov_alive_chains` of the thread */
  uint64_t owner_started;           /* in `tov_alive_chains` the start of `ppid`; 0: not known */
  int seen;                         /* 1: its process was once seen as what is registered */
  int ended;                        /* 1: the end of its process was accepted */
  pid_t heir;                       /* listed: of its program, executed beside it; 0: none */
  uint64_t heir_started;            /* its start, tov_identity_t */
  int heir_forked;                  /* 1: its own process has forked it */
  int row;       /* what the next daemon finds of it, core/registry/row_file.h; 0: nothing */
  int inherited; /* thread watch: 1: taken over from the last daemon, not heard of since */
} tov_pid_t;

/* A registry: records hashed by process id. When two registries are held, `tov_chains` is taken
 * first, then `tov_alive_chains` or `tov_chains_delay`. */
typedef struct TOV_CAPABILITY("registry") tov_chains_s {
  struct tov_hlist_head_s pidchain[TOV_PID_BUCKETS] TOV_GUARDED_BY(this);
  struct tov_list_head_s grpchain;   /* unused; nothing may depend on its content */
  pthread_mutex_t lock;              /* recursive; guards buckets, records and node_num */
  int node_num TOV_GUARDED_BY(this); /* linked records */
} tov_chains_t;

/* ---- process events ------------------------------------------------------------------------- */

enum {
  TOV_EVENT_EXEC = 0x00000002 /* the kernel's PROC_EVENT_EXEC */
};
#define TOV_EVENT_EXIT 0x80000000u /* the kernel's PROC_EVENT_EXIT */

/* What travels through the event ring, as raw bytes. */
typedef struct tov_cnmsg_data {
  uint32_t what; /* TOV_EVENT_* */
  int process_pid;
  uint32_t exit_code; /* wait status; 0 for an execution */
} tov_cnmsg_data_t;

#ifdef __cplusplus
}
#define TOV_PROVE(condition) static_assert(condition, #condition)
#else
#define TOV_PROVE(condition) _Static_assert(condition, #condition)
#endif

TOV_PROVE(sizeof(tov_cnmsg_data_t) == 12);
TOV_PROVE(offsetof(tov_cnmsg_data_t, process_pid) == 4);
TOV_PROVE(offsetof(tov_cnmsg_data_t, exit_code) == 8);

#undef TOV_PROVE

#endif /* TOV_REGISTRY_H */
