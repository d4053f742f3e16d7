/*
 * Paths of the daemon and of the virtual devices' directory trees.
 *
 * A name that ends in _FMT is a printf format; what it takes stands beside it. The daemon writes
 * no other path than these, so that one look here tells what a device will contain.
 */
#ifndef TOV_RAS_COMP_CONFIG_H
#define TOV_RAS_COMP_CONFIG_H

/* ---- the daemon's own files ----------------------------------------------------------------- */

#define TOV_RUN_DIR "/tmp/tov/"
#define TOV_PID_FILE "/tmp/tov/tov.pid"
#define TOV_FORK_FILE "/tmp/tov/forkfile"           /* one byte a failed fork */
#define TOV_SOCKET_PATH "/tmp/tov/.tov"             /* registration socket */
#define TOV_CLIENT_SOCKET_FMT "/tmp/tov/.socket.%d" /* process id */
#define TOV_JOURNAL_1 "/tmp/tov/tov.log1"
#define TOV_JOURNAL_2 "/tmp/tov/tov.log2"
#define TOV_LOG_DIR "/qxos/vsd_common/tov"
#define TOV_FORK_REASON_FILE "/data/.fork_error_file"
#define TOV_EXIT_REASON_FILE "/qxos/vsd/0/tov/exit_reason"
#define TOV_HA_MIRROR_FILE "/tmp/vsd/0/tov/cfg.txt" /* the switch as it is in force */
#define TOV_NOTIFY_COUNT_FILE "/data/.tov_notify_count"
#define TOV_ROOT_RUN_DIR "/run/tov"      /* root's alone, unlike TOV_RUN_DIR */
#define TOV_WATCHED_NAME "watched"       /* in it: the watched threads, for the next daemon */
#define TOV_SUPERVISED_NAME "supervised" /* and the supervised processes */
#define TOV_SEM_KEY_FILE "/tmp/.tov_semphore_path"

/* ---- switches and settings that operators make ---------------------------------------------- */

#define TOV_CONFIG_FILE "/etc/tov_config"   /* mass-crash rule: span in seconds, threshold */
#define TOV_NO_REBOOT_FILE "/tov_no_reboot" /* exists: never ask for a reload */
#define TOV_DEV_MON_FILE "/etc/dev_mon"     /* one silent restart */
#define TOV_DEBUG_LOG_FILE "/etc/debug_log" /* exists: keep the restart journal */
#define TOV_DEBUG_TIME_FILE "/debug_time"   /* self-check period in seconds */
#define TOV_THIRD_PART_DIR "/etc/tov/proc"
#define TOV_THIRD_PART_LIST "/etc/tov/third_part_proc"
#define TOV_SCRIPT_DIR "/etc/cmdmap"
#define TOV_HA_CONFIG_FILE "/data/.syshacfg" /* may forbid reloads */
#define TOV_KILL_DEBUG_FILE "/data/.kill_debug"
#define TOV_DUMP_CONSOLE_FILE "/tov_dump_msg_console"
#define TOV_DEBUG_PID_FILE "/data/.tov_debug_pid"
#define TOV_DEBUG_CFG_SUFFIX "/qx_utils/qx_utils_dbg_cfg.txt" /* below DATA_QXOS_DIR */

/* ---- kernel --------------------------------------------------------------------------------- */

#define TOV_LMK_REBOOT_FILE "/sys/kernel/qx_lowmem_killer/lmk_reboot_status"
#define TOV_LMK_FLUSH_FILE "/sys/kernel/qx_lowmem_killer/flush_tlb"
#define TOV_OOM_ADJ_FMT "/proc/%d/oom_score_adj" /* process id */
#define TOV_CONSOLE "/dev/console"

/* ---- virtual device %d ---------------------------------------------------------------------- */

#define TOV_VSD_DIR_FMT "/tmp/vsd/%d"
#define TOV_VSD_MEMBER_DIR_FMT "/tmp/vsd/%d/tov/"
#define TOV_VSD_MEMBER_FMT "/tmp/vsd/%d/tov/%d" /* device, process id */
#define TOV_VSD_DB_DIR_FMT "/tmp/vsd/%d/tov/db"
#define TOV_VSD_DB_FILE_FMT "/tmp/vsd/%d/tov/db/%s.%d"  /* device, program, process id */
#define TOV_VSD_OLD_DB_FILE_FMT "/tmp/vsd/%d/tov/db/%d" /* device, process id */
#define TOV_VSD_DELETE_MARKER_FMT "/tmp/vsd/%d/delete_vsd"
#define TOV_VSD_RUN_DIR_FMT "/data/var/run/vsd/%d"
#define TOV_VSD_QX_CFG_DIR_FMT "/qx_cfg/vsd/%d"
#define TOV_VSD_QXOS_DIR_FMT "/qxos/vsd/%d"
#define TOV_VSD_DATA_DIR_FMT "/data/.qxos/vsd/%d"
#define TOV_VSD_DATA2_DIR_FMT "/data2/.qxos/vsd/%d"
#define TOV_VSD_DATA2_RUN_DIR_FMT "/data2/var/run/vsd/%d"
#define TOV_VSD_ETC_DIR_FMT "/etc/vsd/%d"
#define TOV_VSD_START_TIME_FMT "/tmp/vsd/%d/starttime" /* uptime at the device's creation */
#define TOV_VSD_MEMORY_GROUP_FMT "/memory/vsd_%d/"     /* version-1 control groups */
#define TOV_VSD_CPU_GROUP_FMT "/cpu/vsd_%d/"
#define TOV_DATA2_DIR "/data2/"

/* What a device is started with. */
#define TOV_VSD_RUN_PARTS "/bin/run-parts"
#define TOV_VSD_SCRIPT_DIR "/etc/rc.d/rc.vsd/"
#define TOV_VSD_PROGRAM_DIR "/sbin/"
#define TOV_VSD_LSM_NODE "/dev/lsm"
#define TOV_VSD_MMAPIPC_NODE "/dev/mmapipc"

/* Group id of virtual device n: TOV_VSD_GID_BASE + TOV_VSD_GID_STEP * n. */
#define TOV_VSD_GID_BASE 3000
#define TOV_VSD_GID_STEP 100

#endif /* TOV_RAS_COMP_CONFIG_H */
