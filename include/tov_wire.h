/*
 * What lies on the wire between a client and the daemon, and what a registration can ask for.
 *
 * Plain data for C11 and C++11. Both sides of the socket may have been built years apart, so the
 * offsets of every record are proven at compile time at the end of the header. It is installed and
 * read by programs of others: it defines nothing but what stands here, and no helper macro outlives
 * it.
 */
#ifndef TOV_WIRE_H
#define TOV_WIRE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* The release that these headers belong to. */
#define TOV_VERSION_MAJOR 1
#define TOV_VERSION_MINOR 0
#define TOV_VERSION_PATCH 0

#ifdef __cplusplus
extern "C" {
#endif

/* ---- what to do when a registered process ends ---------------------------------------------- */

enum {
  NORMAL_EXIT = 1,   /* the exit is expected: nothing is started again */
  RESPAWN = 2,       /* execute the registered command line again */
  SHELL_RESTART = 3, /* run the start script again, with the argument "start" */
  IGNORE_EXIT = 4    /* the exit is of no interest */
};

/* ---- messages between clients and the daemon ------------------------------------------------ */

typedef enum tov_msg_type_e {
  TOV_NORMAL_EXIT = 0,   /* the acknowledgement */
  TOV_RESTART = 1,       /* register: execute again */
  TOV_SHELL_RESTART = 2, /* register: run the start script again */
  TOV_MSG_ACK = 3,       /* despite its name: start watching a thread */
  TOV_RESET = 4,         /* a watched thread is alive; never acknowledged */
  TOV_MSG_CONS = 5       /* control event */
} TOV_MSG_TYPE;

enum {
  TOV_CONS_DUMP_ALL = 0,      /* remove every registration of a process */
  TOV_UNREG_THREAD_NOTIFY = 1 /* stop watching a thread */
};

enum {
  TOV_PATHNAME_SIZE = 256, /* bytes of a command line on the wire or in a file */
  TOV_GRP_SIZE = 32
};

/* Head of every message; `len` bytes of payload follow it in the same packet. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpedantic" /* C++ has no flexible array, its compilers do */
typedef struct tov_msg_head_s {
  uint32_t type; /* TOV_MSG_TYPE */
  int32_t len;
  char pathname[TOV_PATHNAME_SIZE]; /* start script of a TOV_SHELL_RESTART, otherwise empty */
  int32_t pid;                      /* 0; the daemon does not read it */
  char data[];
} tov_msg_head_t;
#pragma GCC diagnostic pop

/* Payload of the types 1 to 4. */
typedef struct tov_msg_xtach_s {
  pid_t pid;  /* process, or thread */
  pid_t ppid; /* owner of the thread, otherwise 0 */
  int vsd_id;
  unsigned int m_n_counter;
  unsigned int m_n_cur_counter;
  unsigned int m_n_notify_time; /* seconds */
  unsigned int m_n_cur_notify_time;
  int restart_time;                 /* seconds */
  char pathname[TOV_PATHNAME_SIZE]; /* command line as the client read it */
  char grp[TOV_GRP_SIZE];
} tov_msg_xtach_t;

/* Payload of TOV_MSG_CONS. */
typedef struct tov_msg_cons_s {
  int event; /* TOV_CONS_DUMP_ALL or TOV_UNREG_THREAD_NOTIFY */
  pid_t pid; /* process or thread */
} tov_msg_cons_t;

#ifdef __cplusplus
}
#define TOV_PROVE(condition) static_assert(condition, #condition)
#else
#define TOV_PROVE(condition) _Static_assert(condition, #condition)
#endif

TOV_PROVE(sizeof(tov_msg_head_t) == 268);
TOV_PROVE(offsetof(tov_msg_head_t, len) == 4);
TOV_PROVE(offsetof(tov_msg_head_t, pathname) == 8);
TOV_PROVE(offsetof(tov_msg_head_t, pid) == 264);
TOV_PROVE(offsetof(tov_msg_head_t, data) == 268);

TOV_PROVE(sizeof(tov_msg_xtach_t) == 320);
TOV_PROVE(offsetof(tov_msg_xtach_t, ppid) == 4);
TOV_PROVE(offsetof(tov_msg_xtach_t, vsd_id) == 8);
TOV_PROVE(offsetof(tov_msg_xtach_t, m_n_counter) == 12);
TOV_PROVE(offsetof(tov_msg_xtach_t, m_n_cur_counter) == 16);
TOV_PROVE(offsetof(tov_msg_xtach_t, m_n_notify_time) == 20);
TOV_PROVE(offsetof(tov_msg_xtach_t, m_n_cur_notify_time) == 24);
TOV_PROVE(offsetof(tov_msg_xtach_t, restart_time) == 28);
TOV_PROVE(offsetof(tov_msg_xtach_t, pathname) == 32);
TOV_PROVE(offsetof(tov_msg_xtach_t, grp) == 288);

TOV_PROVE(sizeof(tov_msg_cons_t) == 8);
TOV_PROVE(offsetof(tov_msg_cons_t, pid) == 4);

#undef TOV_PROVE

#endif /* TOV_WIRE_H */
