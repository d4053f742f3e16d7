// A victim: a program that tells how it was started and then dies as it was told.
//
// Its first act is to note the time; then it appends one line to /data/victim.NAME (NAME: the file
// name of its executable; the variable VICTIM_REPORT names another file) in the format that
// ../birth.h describes, and waits to be killed. Tests copy it under names of their own.
//
// Linked statically: a preloaded clock or sanitizer of the daemon that starts it again must not
// reach it, and it shall start fast.
//
// Words (any order, KEY=VALUE or plain):
//   exit=CODE        leave with CODE            } after=MS first waits so many milliseconds
//   signal=N         send itself a signal       } (default 0)
//   abort            abort(); with core=1 the core limit is lifted before
//   exec=PATH        execute another program, with no arguments
//   until-told       before any of these wait for the file /data/tell.NAME and remove it; who is
//                    started again waits for the next one
//   ignore=N         ignore a signal (may be repeated)
//   child            fork a child that keeps every descriptor and waits
//   daemonise        fork itself into the background; the child does the rest
//   thread-exit      start a second thread that ends after `after` ms; the first one stays
//   leader-exit      end the first thread after `after` ms; a second one stays
//   last-exit=CODE   with leader-exit: when told, after that, end the second one alone, with CODE
//   threads=N        start so many waiting threads
//   lock=ACTION      write its registration file with that action and hold its lock
//   vsd=N            the device number for the file (default 0)
//   print=TEXT       print TEXT and a line feed on standard output
//   start, -d ...    anything else is ignored
// The registration file, the ignored signals, the threads and the child are in place before the
// birth line appears.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace {

struct Orders {
  int exit_code = -1;
  int signal = 0;
  long after_ms = 0;
  bool abort = false;
  bool core = false;
  bool until_told = false;
  bool child = false;
  bool daemonise = false;
  bool thread_exit = false;
  bool leader_exit = false;
  int last_exit = -1;
  int threads = 0;
  int lock_action = 0;
  int vsd = 0;
  std::string exec;
  std::string print;
};

}  // namespace

static Orders orders;
static std::string report_path;
static std::string tell_path;
static std::atomic<bool> leader_has_left = false;

// The system call, not the C library: nothing may come between us and the real clock.
static int64_t now_ns() {
  timespec now{};
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

static void sleep_ms(long ms) {
  timespec left{ms / 1000, (ms % 1000) * 1'000'000};
  while (nanosleep(&left, &left) < 0) {
  }
}

static std::string read_text(const char *path) {
  std::string text;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  char part[4096];
  ssize_t got;
  while (fd >= 0 && (got = read(fd, part, sizeof part)) > 0)
    text.append(part, static_cast<size_t>(got));
  if (fd >= 0) close(fd);
  return text;
}

static std::string link_target(const std::string &path) {
  char target[4096];
  const ssize_t got = readlink(path.c_str(), target, sizeof target);
  return got < 0 ? std::string("?") : std::string(target, static_cast<size_t>(got));
}

static std::string status_field(const std::string &status, const std::string &field) {
  const size_t at = status.find("\n" + field + ":");
  if (at == std::string::npos) return {};
  const size_t begin = at + field.size() + 3;
  std::string value = status.substr(begin, status.find('\n', begin) - begin);
  while (!value.empty() && value.back() == ' ')
    value.pop_back();
  return value;
}

// One write on an append-only descriptor: lines of several victims do not mix.
static void append_line(std::string line) {
  for (char &c : line)
    if (c == '\n') c = '?';
  line += '\n';
  const int fd = open(report_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return;
  (void)!write(fd, line.data(), line.size());
  close(fd);
}

static void note(const std::string &text) {
  append_line("note\t" + text);
}

static std::string joined(int argc, char **argv) {
  std::string text;
  for (int i = 0; i < argc; i++)
    text += std::string(i == 0 ? "" : " ") + argv[i];
  return text;
}

static std::string open_descriptors() {
  std::string text;
  DIR *dir = opendir("/proc/self/fd");
  while (const dirent *entry = dir == nullptr ? nullptr : readdir(dir)) {
    const int fd = atoi(entry->d_name);
    if (entry->d_name[0] == '.' || fd == dirfd(dir)) continue;
    text += std::string(entry->d_name) + ":" +
            link_target(std::string("/proc/self/fd/") + entry->d_name) + "|";
  }
  if (dir != nullptr) closedir(dir);
  return text;
}

static std::string device_variables() {
  std::string text;
  for (char **variable = environ; *variable != nullptr; variable++)
    for (const char *prefix : {"QX", "DATA_QX", "TMPDIR"})
      if (strncmp(*variable, prefix, strlen(prefix)) == 0)
        text += std::string("\tenv.") + *variable;
  return text;
}

static void report_birth(int64_t main_ns, const std::string &words, const std::string &fds) {
  const std::string status = read_text("/proc/self/status");
  sched_param param{};
  sched_getparam(0, &param);
  rlimit nofile{};
  getrlimit(RLIMIT_NOFILE, &nofile);
  char cwd[4096] = "?";
  (void)!getcwd(cwd, sizeof cwd);
  std::string line = "birth";
  const auto add = [&line](const char *key, const std::string &value) {
    line += std::string("\t") + key + "=" + value;
  };
  add("pid", std::to_string(getpid()));
  add("ppid", std::to_string(getppid()));
  add("sid", std::to_string(getsid(0)));
  add("pgrp", std::to_string(getpgrp()));
  add("main_ns", std::to_string(main_ns));
  add("argv", words);
  add("cwd", cwd);
  add("fds", fds);
  for (const char *mask : {"SigBlk", "SigIgn", "SigCgt"})
    add(mask, status_field(status, mask));
  add("groups", status_field(status, "Groups"));
  add("policy", std::to_string(sched_getscheduler(0)));
  add("priority", std::to_string(param.sched_priority));
  add("nice", std::to_string(getpriority(PRIO_PROCESS, 0)));
  add("oom_score_adj", std::to_string(atoi(read_text("/proc/self/oom_score_adj").c_str())));
  add("nofile", std::to_string(nofile.rlim_cur));
  append_line(line + device_variables() + "\tend=1");
}

// As a client does it: pid, action and command line, whole-file write lock, descriptor kept open.
static void hold_registration(const std::string &words) {
  std::string path = "/tmp/vsd/" + std::to_string(orders.vsd) + "/tov/db";
  for (size_t at = 1; at != std::string::npos; at = path.find('/', at + 1)) {
    const std::string parent = path.substr(0, path.find('/', at + 1));
    if (mkdir(parent.c_str(), 0777) == 0) chmod(parent.c_str(), 0777);
  }
  const std::string program = words.substr(0, words.find(' '));
  path += "/" + program.substr(program.rfind('/') + 1) + "." + std::to_string(getpid());
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
  const std::string text = std::to_string(getpid()) + "\n" + std::to_string(orders.lock_action) +
                           "\n" + words.substr(0, 255);
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (fd < 0 || write(fd, text.data(), text.size()) < 0 || fcntl(fd, F_SETLK, &whole) < 0)
    note("registration file " + path + ": " + strerror(errno));
}

static void *wait_for_ever(void *) {
  for (;;)
    pause();
}

static void wait_for_word() {
  static constexpr long ASK_PERIOD_MS = 2;
  while (unlink(tell_path.c_str()) < 0)
    sleep_ms(ASK_PERIOD_MS);
}

// Ends no other thread, unlike exit().
static void *end_last(void *) {
  static constexpr long ASK_PERIOD_MS = 2;
  while (!leader_has_left)
    sleep_ms(ASK_PERIOD_MS);
  wait_for_word();
  syscall(SYS_exit, orders.last_exit);
  return nullptr;
}

static void *end_later(void *) {
  const auto tid = std::to_string(syscall(SYS_gettid));
  sleep_ms(orders.after_ms);
  note("thread " + tid + " ends");
  return nullptr;
}

static void start_thread(void *(*body)(void *)) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, body, nullptr) == 0) pthread_detach(thread);
}

static void keep_child() {
  const pid_t child = fork();
  if (child == 0) wait_for_ever(nullptr);
  note("child " + std::to_string(child));
}

static void become_daemon() {
  const pid_t child = fork();
  if (child != 0) _exit(child < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
  setsid();
}

static void parse_word(const std::string &word) {
  const size_t equals = word.find('=');
  const std::string key = word.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
  const int number = atoi(value.c_str());
  if (key == "exit") orders.exit_code = number;
  if (key == "signal") orders.signal = number;
  if (key == "after") orders.after_ms = number;
  if (key == "abort") orders.abort = true;
  if (key == "core") orders.core = true;
  if (key == "until-told") orders.until_told = true;
  if (key == "exec") orders.exec = value;
  if (key == "ignore") signal(number, SIG_IGN);
  if (key == "child") orders.child = true;
  if (key == "daemonise") orders.daemonise = true;
  if (key == "thread-exit") orders.thread_exit = true;
  if (key == "leader-exit") orders.leader_exit = true;
  if (key == "last-exit") orders.last_exit = number;
  if (key == "threads") orders.threads = number;
  if (key == "lock") orders.lock_action = number;
  if (key == "vsd") orders.vsd = number;
  if (key == "print") orders.print = value;
}

static void prepare(const std::string &words) {
  if (orders.daemonise) become_daemon();
  if (orders.lock_action > 0) hold_registration(words);
  if (orders.child) keep_child();
  for (int i = 0; i < orders.threads; i++)
    start_thread(wait_for_ever);
  if (orders.leader_exit) start_thread(orders.last_exit >= 0 ? end_last : wait_for_ever);
  if (!orders.print.empty()) dprintf(STDOUT_FILENO, "%s\n", orders.print.c_str());
}

static void die_as_told() {
  if (orders.until_told) wait_for_word();
  if (orders.thread_exit) {
    start_thread(end_later);
    return;
  }
  sleep_ms(orders.after_ms);
  if (orders.core) {
    const rlimit any{RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_CORE, &any);
  }
  if (orders.abort) abort();
  if (orders.signal != 0) raise(orders.signal);
  if (!orders.exec.empty()) execl(orders.exec.c_str(), orders.exec.c_str(), nullptr);
  if (orders.exit_code >= 0) exit(orders.exit_code);
  leader_has_left = true;
  if (orders.leader_exit) pthread_exit(nullptr);
}

int main(int argc, char **argv) {
  const int64_t main_ns = now_ns();
  const std::string fds = open_descriptors();  // before we open any of our own
  const char *named = getenv("VICTIM_REPORT");
  const std::string exe = link_target("/proc/self/exe");
  const std::string name = exe.substr(exe.rfind('/') + 1);
  report_path = named != nullptr ? named : "/data/victim." + name;
  tell_path = "/data/tell." + name;
  for (int i = 1; i < argc; i++)
    parse_word(argv[i]);
  const std::string words = joined(argc, argv);
  prepare(words);
  report_birth(main_ns, words, fds);
  die_as_told();
  wait_for_ever(nullptr);
}
