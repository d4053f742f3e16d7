// Registering what happens when a process ends.
//
// The registration file is written here, by the registering process, before the request goes out:
// its lock, which ends with the process, is how the daemon tells a living registration from a dead
// one, and the file is what a restarted daemon finds. So a request that never arrives still leaves
// a registration behind for the daemon's next start.
//
// Threads: any of the host's; requests wait for each other in tov_rpc().
#include "include/tov_xtach.h"

#include <stdio.h>
#include <string.h>
#include <sys/types.h>
#include <unistd.h>

#include "client/tov_pidfile.h"
#include "client/tov_rpc.h"
#include "client/tov_rpc_fork.h"
#include "client/tov_xtach.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "util/procfs.h"
#include "vsd/member.h"

enum { TOV_GRP_LABELS = 20 };

// What the caller meant by `pid`: 0 is itself, and a negative one becomes 0, which names no
// process.
static pid_t resolve_pid(pid_t pid) {
  if (pid < 0) {
    TOV_DBG("The pid you enter is < 0 \n");
    return 0;
  }
  return pid == 0 ? getpid() : pid;
}

// The client's label: a few values shared by all processes, empty for the process 0 of above.
static void fill_group(tov_msg_xtach_t *payload) {
  if (payload->pid == 0) return;
  snprintf(payload->grp, sizeof payload->grp, "test-%d", payload->pid % TOV_GRP_LABELS);
}

// Fills the command line of the process. Returns false when it shows none.
//   command  what it is known to be, null: what it shows
static bool fill_command(tov_msg_xtach_t *payload, const char *command) {
  char *text = payload->pathname;
  if (command == nullptr) return pid_to_cmdline(payload->pid, text, TOV_PATHNAME_SIZE) != nullptr;
  memcpy(text, command, strnlen(command, TOV_PATHNAME_SIZE - 1));
  return true;
}

// The payload of a registration; writes the registration file as well. A process whose command
// line cannot be read is registered without a file.
static void prepare_registration(const char *caller, pid_t pid, TOV_MSG_TYPE type,
                                 const char *command, tov_msg_xtach_t *payload) {
  payload->pid = resolve_pid(pid);
  payload->vsd_id = tov_vsd_or_base(payload->pid);
  if (!fill_command(payload, command)) {
    TOV_DBG("%s: fail to get pid %d's cmdline\n", caller, payload->pid);
    return;
  }
  if (tov_mk_pidfile(payload, type) < 0) {
    TOV_DBG("tov_mk_pidfile fail. vsd %d pid %d name %s \n", payload->vsd_id, payload->pid,
            payload->pathname);
  }
}

static int register_as(const char *caller, pid_t pid, TOV_MSG_TYPE type, const char *command) {
  const tov_rpc_call_t call;
  tov_parse_dbg_file();
  tov_msg_xtach_t payload{};
  prepare_registration(caller, pid, type, command, &payload);
  (void)tov_rpc_persist(type, &payload, sizeof payload);  // the caller is promised 0
  return 0;
}

extern "C" int reg_process_exit_action(pid_t pid, TOV_MSG_TYPE type) noexcept {
  return register_as(__func__, pid, type, nullptr);
}

extern "C" int reg_process_exit_action_shell(pid_t pid, TOV_MSG_TYPE type,
                                             const char *path) noexcept {
  const tov_rpc_call_t call;
  tov_parse_dbg_file();
  tov_msg_xtach_t payload{};
  prepare_registration(__func__, pid, type, nullptr, &payload);
  fill_group(&payload);

  char script[TOV_PATHNAME_SIZE] = "";
  if (path != nullptr) memcpy(script, path, strnlen(path, sizeof script - 1));
  return tov_rpc(type, script, &payload, sizeof payload, false, false);
}

int tov_register_third_part(pid_t pid, const char *type, const char *command) {
  static constexpr struct {
    const char *word;  // what the text begins with; no word is the beginning of another
    TOV_MSG_TYPE type;
  } types[] = {
      {"TOV_RESTART", TOV_RESTART},
      {"TOV_SHELL_RESTART", TOV_SHELL_RESTART},
  };
  if (type == nullptr) return -1;
  for (const auto &known : types) {
    if (strncmp(type, known.word, strlen(known.word)) == 0) {
      return register_as("reg_process_exit_action", pid, known.type, command);
    }
  }
  return -1;
}

extern "C" int reg_third_part_process_exit_action(pid_t pid, const char *type) noexcept {
  return tov_register_third_part(pid, type, nullptr);
}

extern "C" int tov_time_set(pid_t pid, TOV_MSG_TYPE type, int restart_time) noexcept {
  const tov_rpc_call_t call;
  tov_msg_xtach_t payload{};
  payload.pid = resolve_pid(pid);
  payload.restart_time = restart_time;
  fill_group(&payload);
  return tov_rpc(type, nullptr, &payload, sizeof payload, false, false);
}
