// A worker: a supervised program that registers itself, through the client library or by writing
// its file as the library would.
//
// Tests copy or link it under names of their own (NAME: the file name of its executable). It
// appends to /data/worker.NAME
//   birth PID NS START
//                  as soon as its registration file is written, before it waits for the daemon; NS
//                  is the time, CLOCK_MONOTONIC, START its start as in /proc/PID/stat
//   registered PID when the registration call has come back (nothing is registered: at once)
//   cancelled PID  when a told cancellation has come back
//   anew PID       when it was told to register anew and has done so
//   grown PID      when it has all the memory it was told to take
//   titled PID     when it has rewritten its command line
//   leaderless PID when its first thread has ended, and another one goes on
// and then works until it is killed or told otherwise.
//
// Words:
//   exec           register: execute again
//   script         register: run the start script again
//   path=TEXT      register: run the start script that TEXT chooses
//   file=ACTION    write and lock the registration file with that action, without a request
//   vsd=N          the device number for that file
//   delay=S        ask for a restart after S seconds of the daemon's clock; with exec or script
//   watch          have the first thread watched, and give signs of life
//   daemonise      fork into the background first; so does every worker whose name holds
//                  "background", for tests of programs without words
//   launch=WORD    execute itself with that word instead, under the same id
//   sponsored      a helper process of its own registers it (execute again) and holds the file's
//                  lock until some time after its end
//   idle           register nothing and do nothing: what a told worker becomes
//   sponsor=FD     be that helper, for the parent; FD is closed when the parent is registered
// While /data/loop.NAME exists the worker fails soon after its start, again and again; when
// /data/cancel.NAME exists it removes that file and withdraws its registration; when
// /data/anew.NAME exists it removes that file, withdraws its registration and registers again; when
// /data/grow.NAME exists it removes that file and takes as many megabytes as it said; when
// /data/become.NAME exists it removes that file and executes itself with the word "idle"; when
// /data/title.NAME exists it removes that file and rewrites its command line to "NAME: on"; when
// /data/leader.NAME exists it removes that file and goes on without its first thread.
//
// Linked statically, like the victim and for the same reason.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <tov/tov_xtach.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

static constexpr long TICK_MS = 20;
enum { STATE = 3, START = 22 };                    // fields of /proc/PID/stat
static constexpr unsigned int WATCH_ARGUMENT = 2;  // even: a period of 120 s, 5 missed

namespace {

struct Orders {
  TOV_MSG_TYPE type = TOV_NORMAL_EXIT;
  bool by_path = false;
  std::string path;
  int file_action = 0;
  int vsd = 0;
  int delay_s = 0;
  bool watch = false;
  bool daemonise = false;
  std::string launch;
  bool sponsored = false;
  bool idle = false;
  int sponsor_fd = -1;
};

}  // namespace

static Orders orders;
static std::string own_path;
static std::string words;  // the command line, as the daemon reads it
static std::string name;
static char *argv_begin;
static size_t argv_size;

static void report(const char *what, const std::string &more = {}) {
  const std::string path = "/data/worker." + name;
  const std::string line = std::string(what) + " " + std::to_string(getpid()) + more + "\n";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return;
  (void)!write(fd, line.data(), line.size());
  close(fd);
}

static bool is_told(const char *what) {
  return access(("/data/" + std::string(what) + "." + name).c_str(), F_OK) == 0;
}

static void sleep_ms(long ms) {
  timespec left{ms / 1000, (ms % 1000) * 1'000'000};
  while (nanosleep(&left, &left) < 0 && errno == EINTR) {
  }
}

static void parse_word(const std::string &word) {
  const size_t equals = word.find('=');
  const std::string key = word.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
  if (key == "exec") orders.type = TOV_RESTART;
  if (key == "script" || key == "path") orders.type = TOV_SHELL_RESTART;
  if (key == "path") {
    orders.by_path = true;
    orders.path = value;
  }
  if (key == "file") orders.file_action = atoi(value.c_str());
  if (key == "vsd") orders.vsd = atoi(value.c_str());
  if (key == "delay") orders.delay_s = atoi(value.c_str());
  if (key == "watch") orders.watch = true;
  if (key == "daemonise") orders.daemonise = true;
  if (key == "launch") orders.launch = value;
  if (key == "sponsored") orders.sponsored = true;
  if (key == "idle") orders.idle = true;
  if (key == "sponsor") orders.sponsor_fd = atoi(value.c_str());
}

// The same program under the same process id, as another command line.
[[noreturn]] static void execute(const std::string &word) {
  execl(own_path.c_str(), own_path.c_str(), word.c_str(), nullptr);
  _exit(EXIT_FAILURE);
}

static void become_daemon() {
  const pid_t child = fork();
  if (child != 0) _exit(child < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
  setsid();
}

// As the library does it, without asking the daemon. Missing directories stay missing.
static void write_file() {
  const std::string path =
      "/tmp/vsd/" + std::to_string(orders.vsd) + "/tov/db/" + name + "." + std::to_string(getpid());
  const std::string text =
      std::to_string(getpid()) + "\n" + std::to_string(orders.file_action) + "\n" + words;
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (fd >= 0 && write(fd, text.data(), text.size()) > 0) (void)fcntl(fd, F_SETLK, &whole);
}

// Has a helper process register this one, and waits until it has. Its lock outlives us by a while,
// so that the daemon has to put our restart off.
static void start_sponsor() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) < 0) return;
  const pid_t child = fork();
  if (child == 0) {
    const int kept = dup(ends[1]);
    close(ends[1]);
    execute("sponsor=" + std::to_string(kept));
  }
  close(ends[1]);
  char nothing;
  while (child > 0 && read(ends[0], &nothing, 1) < 0 && errno == EINTR) {
  }
  close(ends[0]);
}

// The helper: registers the parent, waits for its end, and holds the lock a little longer.
[[noreturn]] static void sponsor() {
  static constexpr int HELD_STEPS = 40;
  const pid_t parent = getppid();
  pollfd ended{static_cast<int>(syscall(SYS_pidfd_open, parent, 0)), POLLIN, 0};
  if (ended.fd < 0 || getppid() != parent) _exit(EXIT_FAILURE);
  (void)reg_process_exit_action(parent, TOV_RESTART);
  close(orders.sponsor_fd);
  while (poll(&ended, 1, -1) < 0 && errno == EINTR) {
  }
  sleep_ms(getpid() % HELD_STEPS * TICK_MS);
  _exit(EXIT_SUCCESS);
}

// A field of /proc/self/stat; no worker's name has a blank.
static std::string stat_field(int number) {
  std::ifstream stat("/proc/self/stat");
  std::string field;
  for (int i = 0; i < number && stat >> field; i++) {
  }
  return field;
}

static void report_birth() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  report("birth", " " + std::to_string(int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec) + " " +
                      stat_field(START));
}

// The daemon takes the delay from the first registration and passes a second one over; only the
// second one leaves a registration file, for the next daemon.
static void ask_for_restarts() {
  if (orders.delay_s > 0) (void)tov_time_set(0, orders.type, orders.delay_s);
  if (orders.by_path) {
    (void)reg_process_exit_action_shell(0, orders.type, orders.path.c_str());
  } else if (orders.type != TOV_NORMAL_EXIT) {
    (void)reg_process_exit_action(0, orders.type);
  }
}

static void register_self() {
  if (orders.file_action > 0) write_file();
  report_birth();
  if (orders.sponsored) start_sponsor();
  ask_for_restarts();
  if (orders.watch) {
    (void)tov_client_reg_thread_notify(getpid(), gettid(), WATCH_ARGUMENT, 1);
  }
  report("registered");
}

// Every page is touched; nothing is ever given back.
static void grow() {
  static constexpr size_t MEGABYTE = size_t{1} << 20;
  const std::string path = "/data/grow." + name;
  char text[16] = "";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  (void)!read(fd, text, sizeof text - 1);
  close(fd);
  if (text[0] == '\0') return;  // still being written
  unlink(path.c_str());
  static std::vector<std::vector<char>> kept;
  for (int left = atoi(text); left > 0; left--)
    kept.emplace_back(MEGABYTE, 1);
  report("grown");
}

// Fails in one of several ways; which one depends on nothing but the process id.
static void fail() {
  switch (getpid() % 3) {
    case 0:
      exit(EXIT_FAILURE);
    case 1:
      abort();
    default:
      raise(SIGSEGV);
  }
}

// As servers do that show what they are at.
static void rewrite_title() {
  const std::string title = name + ": on";
  memset(argv_begin, 0, argv_size);
  memcpy(argv_begin, title.data(), std::min(title.size(), argv_size - 1));
  report("titled");
}

static void work();

// Another thread takes over. It is not waited with the first one's end until that is seen: whoever
// reads the report shall find it.
static void end_first_thread() {
  std::thread([] {
    while (stat_field(STATE) != "Z")
      sleep_ms(1);
    report("leaderless");
    work();
  }).detach();
  syscall(SYS_exit, EXIT_SUCCESS);
}

static bool takes_order(const char *what) {
  return is_told(what) && unlink(("/data/" + std::string(what) + "." + name).c_str()) == 0;
}

static void work() {
  for (;;) {
    sleep_ms(TICK_MS);
    if (is_told("loop")) fail();
    if (is_told("grow")) grow();
    if (orders.watch) {
      (void)tov_client_reset_thread_notify(getpid(), gettid(), WATCH_ARGUMENT, 1);
    }
    if (takes_order("cancel")) {
      (void)tov_cancel_proc(0);
      report("cancelled");
    }
    if (takes_order("anew")) {
      (void)tov_cancel_proc(0);
      ask_for_restarts();
      report("anew");
    }
    if (takes_order("become")) execute("idle");
    if (takes_order("title")) rewrite_title();
    if (takes_order("leader")) end_first_thread();
  }
}

// An executable that was replaced shows as such.
static std::string path_of_self() {
  static constexpr char REPLACED[] = " (deleted)";
  char exe[256] = "";
  (void)!readlink("/proc/self/exe", exe, sizeof exe - 1);
  std::string path = exe;
  if (path.ends_with(REPLACED)) path.resize(path.size() - strlen(REPLACED));
  return path;
}

int main(int argc, char **argv) {
  own_path = path_of_self();
  name = own_path.substr(own_path.rfind('/') + 1);
  words = own_path;
  argv_begin = argv[0];
  argv_size = static_cast<size_t>(argv[argc - 1] + strlen(argv[argc - 1]) + 1 - argv[0]);
  for (int i = 1; i < argc; i++) {
    parse_word(argv[i]);
    words += std::string(" ") + argv[i];
  }
  if (orders.sponsor_fd >= 0) sponsor();
  if (!orders.launch.empty()) execute(orders.launch);
  while (orders.idle)
    pause();
  if (orders.daemonise || name.find("background") != std::string::npos) become_daemon();
  register_self();
  work();
}
