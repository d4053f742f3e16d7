// The daemon's entry: start-up from top to bottom, the threads, shutdown.
//
// The daemon does not put itself into the background. When one of its main threads fails it sets
// `quit`, everything ends here, and whoever started the daemon is expected to start it again; the
// registration files carry its knowledge over.
//
// Signals: SIGALRM and SIGCHLD are blocked before anything is started, so that every thread is born
// with them blocked, and unblocked in this thread alone once the threads run
// (proc/selfcheck/tov_signals.h says why that makes the alarm's handler safe).
//
// Tested by: tests/device/instance_test.cpp
#include "core/tov_core.h"

#include <errno.h>
#include <linux/close_range.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <iterator>

#include "alive/tov_sys_alive.h"
#include "client/tov_rpc_stop.h"
#include "client/tov_xtach_sem.h"
#include "core/events/handler.h"
#include "core/events/netlink.h"
#include "core/events/tov_fifo.h"
#include "core/policy/delay.h"
#include "core/policy/rebuild.h"
#include "core/policy/sweep.h"
#include "core/policy/waits.h"
#include "core/registry/tov_chain.h"
#include "core/run/farewell.h"
#include "core/run/flags.h"
#include "core/run/lowmem.h"
#include "core/run/quit.h"
#include "core/server/server.h"
#include "core/setup.h"
#include "core/third_part.h"
#include "core/watch/fork_watcher.h"
#include "core/watch/takeover.h"
#include "core/watch/watchdog.h"
#include "include/tov_ras_comp_config.h"
#include "include/tov_registry.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "platform/tov_platform.h"
#include "proc/selfcheck/tov_signals.h"
#include "util/clock.h"
#include "util/owner.h"
#include "util/tov_utils.h"
#include "vsd/tov_opt.h"

enum {
  EXIT_OK = 0,
  EXIT_REFUSED = -1,
};

// ---- threads --------------------------------------------------------------------------------

namespace {

struct thread_s {
  void *(*body)(void *);
  const char *failure;     // event-log line
  const char *diagnostic;  // the same with a small first letter
  bool joined;             // the others are detached and end with the process
};

}  // namespace

#define TOV_THREAD(body, subject, joined) \
  { body, "Fail to create " subject ": %s\n", "fail to create " subject ": %s\n", joined }

// In the order in which they start; the joined ones are waited for in the opposite order.
static constexpr thread_s threads[] = {
    TOV_THREAD(tov_cnmsg_handle, "tov_cnmsg_handle thread", true),
    TOV_THREAD(tov_process_netlink, "tov_process_netlink thread", true),
    TOV_THREAD(tov_process_domain, "tov_process_domain thread", true),
    TOV_THREAD(tov_notifer_run, "tov_notifer_run", true),
    TOV_THREAD(tov_inotify_fork_error, "tov_inotify_fork_error thread", false),
    TOV_THREAD(tov_delay_restart, "tov_delay_restart thread", false),
    TOV_THREAD(tov_proc_stat_check, "tov_proc_stat_check thread", false),
};

namespace {

struct daemon_s {
  int argc;  // the command line
  char **argv;
  tov_fd_t pid_file;       // open and locked for the daemon's life
  bool has_queue = false;  // the event ring was allocated
  pthread_t started[std::size(threads)] = {};
  size_t started_count = 0;
};

// What start-up does next.
enum next_e {
  GO_ON,
  REFUSE,     // leave at once; there is nothing to tear down
  SHUT_DOWN,  // start nothing more and tear down what there is
};

}  // namespace

// The daemon cannot run: its failure line gets a second to reach storage.
static next_e give_up() {
  tov_log_flush_and_wait();
  tov_quit_raise();
  return SHUT_DOWN;
}

// ---- start-up -------------------------------------------------------------------------------

static next_e make_run_directory(daemon_s &) {
  (void)tov_make_dir(TOV_RUN_DIR);
  return GO_ON;
}

static next_e read_debug_switches(daemon_s &) {
  (void)tov_parse_dbg_file();
  return GO_ON;
}

// With a tool command this is where the process ends. What the tool starts keeps the caller's
// signals and working directory.
static next_e obey_command_line(daemon_s &daemon) {
  tov_handle_options(daemon.argc, daemon.argv);
  return GO_ON;
}

// From here on we are the daemon and no tool: every thread and child starts from this state.
static next_e hold_signals_back(daemon_s &) {
  tov_signals_block();
  (void)chdir("/");  // shared by all threads: nothing relies on it, and no mount is held by it
  return GO_ON;
}

// The tool's own ends are the C++ library's: it works in the foreground.
static next_e answer_lack_of_memory(daemon_s &) {
  tov_core_end_without_memory();
  return GO_ON;
}

static next_e be_the_only_one(daemon_s &daemon) {
  daemon.pid_file = tov_fd_t(already_running(TOV_PID_FILE));
  if (daemon.pid_file.n >= 0) return GO_ON;
  TOV_DBG("tov is already running\n");
  return REFUSE;
}

static next_e note_start_time(daemon_s &) {
  tov_flag_set(tov_single_ps_ha_enable_time, static_cast<int>(tov_get_time()));
  return GO_ON;
}

static next_e raise_file_limit(daemon_s &) {
  tov_set_file_limit();
  return GO_ON;
}

// Without it each thread sees `quit` when its own wait is over.
static next_e make_quit_heard(daemon_s &) {
  const int res = tov_quit_init();
  if (res < 0) TOV_DBG("fail to make the event of quit: %s\n", strerror(-res));
  return GO_ON;
}

static next_e make_directory_trees(daemon_s &) {
  tov_make_directories();
  return GO_ON;
}

static next_e open_event_logs(daemon_s &) {
  tov_log_init();
  return GO_ON;
}

static next_e init_registries(daemon_s &) {
  tov_init_chains(&tov_chains);
  tov_init_chains(&tov_alive_chains);
  tov_init_chains(&tov_chains_delay);
  return GO_ON;
}

static next_e leave_waits_to_handler(daemon_s &) {
  tov_waits_leave_to_handler(true);
  return GO_ON;
}

static next_e rebuild_registry(daemon_s &) {
  if (tov_rebuild_chains(&tov_chains) >= 0) return GO_ON;
  TOV_DBG("fail to rebuild chains\n");
  return REFUSE;
}

static next_e init_semaphore(daemon_s &) {
  if (tov_sem_init() < 0) TOV_DBG("fail to init tov semaphore!!!\n");
  return GO_ON;
}

static next_e exempt_from_memory_killer(daemon_s &) {
  tov_ignore_lmk(getpid());
  return GO_ON;
}

static next_e install_signal_handlers(daemon_s &) {
  tov_setup_signals();
  tov_chld_handler(SIGCHLD);  // children of the rebuild that ended before there was a handler
  return GO_ON;
}

static next_e list_third_part_programs(daemon_s &) {
  tov_third_part_proc_init();
  return GO_ON;
}

// Before the area is cleared, which says who has withdrawn meanwhile.
static next_e take_over_watched_threads(daemon_s &) {
  tov_watch_take_over();
  return GO_ON;
}

static next_e map_alive_info(daemon_s &) {
  const int ret = tov_sys_init_alive_info(true);
  if (ret == 0) return GO_ON;
  TOV_DBG("fail to init alive_info!!!\n");
  (void)tov_log_with_type(TOV_LOG_ERROR, "Init alive info Fail. ret=%d\r\n", ret);
  return give_up();
}

static next_e allocate_event_queue(daemon_s &daemon) {
  daemon.has_queue = tov_cnmsg_fifo_alloc() == 0;
  if (daemon.has_queue) return GO_ON;
  (void)tov_log_with_type(TOV_LOG_ERROR, "alloc cnmsg fifo Fail!\r\n");
  return give_up();
}

static next_e say_hello(daemon_s &) {
  TOV_DBG("tov restart\n");
  (void)tov_log_with_type(TOV_LOG_RUN_EVENT, "TOV start.\r\n");
  return GO_ON;
}

static next_e start_threads(daemon_s &daemon) {
  // The event handler registers third-part programs with our own server; that must not go on
  // trying when the server is gone.
  tov_rpc_stop_asked = [] { return tov_flag_get(quit) != 0; };
  for (const thread_s &row : threads) {
    pthread_t *thread = &daemon.started[daemon.started_count];
    const int error = pthread_create(thread, nullptr, row.body, nullptr);
    if (error != 0) {
      TOV_DBG(row.diagnostic, strerror(error));
      tov_quit_raise();
      (void)tov_log_with_type(TOV_LOG_ERROR, row.failure, strerror(error));
      return give_up();
    }
    if (!row.joined) pthread_detach(*thread);
    daemon.started_count++;
  }
  return GO_ON;
}

static next_e connect_self_healing(daemon_s &) {
  if (psh_lib_common_init() < 0) TOV_DBG("fail to psh_lib_common_init:%s\n", strerror(errno));
  return GO_ON;
}

static constexpr next_e (*start_up[])(daemon_s &) = {
    make_run_directory,
    read_debug_switches,
    obey_command_line,
    hold_signals_back,
    answer_lack_of_memory,
    be_the_only_one,
    note_start_time,
    raise_file_limit,
    make_quit_heard,
    make_directory_trees,
    open_event_logs,
    init_registries,
    leave_waits_to_handler,
    rebuild_registry,
    init_semaphore,
    exempt_from_memory_killer,
    install_signal_handlers,
    list_third_part_programs,
    take_over_watched_threads,
    map_alive_info,
    allocate_event_queue,
    say_hello,
    start_threads,
    connect_self_healing,
};

// ---- running and shutdown -------------------------------------------------------------------

// Waits for the threads that matter. The only place where SIGALRM and SIGCHLD are let in: this
// thread, while it waits here and holds nothing.
static void run(const daemon_s &daemon, bool complete) {
  if (complete) tov_signals_unblock();
  for (size_t i = daemon.started_count; i-- > 0;) {
    if (threads[i].joined) pthread_join(daemon.started[i], nullptr);
  }
  tov_signals_block();
  alarm(0);
}

static void shut_down(daemon_s &daemon) {
  if (daemon.has_queue) tov_cnmsg_fifo_free();
  tov_destroy_chains(&tov_chains);
  tov_destroy_chains(&tov_alive_chains);
  tov_destroy_chains(&tov_chains_delay);
  daemon.pid_file.reset();
  (void)tov_log_with_type(TOV_LOG_ERROR, "TOV exit.\r\n");
  tov_log_flush_and_wait();
}

int main(int argc, char **argv) {
  // A console or a log that reads us gets whole lines at once, and a fork finds nothing to repeat.
  (void)setvbuf(stdout, nullptr, _IOLBF, 0);
  // What we inherited must not reach the programs that we start.
  (void)close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);

  daemon_s daemon{.argc = argc, .argv = argv, .pid_file = tov_fd_t()};
  next_e next = GO_ON;
  for (auto step : start_up) {
    next = step(daemon);
    if (next != GO_ON) break;
  }
  if (next == REFUSE) tov_core_leave(EXIT_REFUSED);
  run(daemon, next == GO_ON);
  shut_down(daemon);
  tov_core_leave(EXIT_OK);
}
