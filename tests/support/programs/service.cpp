// A service: a program that behaves as real daemons do and knows nothing of the one that supervises
// it.
//
// When it has become what it is going to be it appends one birth line to /data/victim.NAME
// (../birth.h; NAME: the file name of its executable), as a victim does, with the words that it was
// started with. Its workers append the note "worker PID" instead. SIGTERM ends it.
//
// Words (any order, KEY=VALUE or plain):
//   front            stay what was started (the default)
//   background[=2]   fork, lead a session of its own and let what was started end with 0; with 2,
//                    fork once more as session leaders do that want no terminal
//   slow=MS          read a configuration for so long first, each time that it is executed
//   again[=WORD]     execute itself once more, with WORD for a last word: the mark that this was
//                    done is in the environment
//   title=TEXT       write "NAME: TEXT" over its command line and its environment; workers write
//                    "NAME: worker"
//   workers=N        fork so many workers, which live on when it ends
//   workers-follow   they end with it
//   as=NAME          the report is that NAME's: tells the instances of one program apart
//   -x, file ...     anything else is ignored
//
// Linked statically, like the victim and for the same reason.
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

static constexpr char AGAIN_MARK[] = "SERVICE_AGAIN";
static constexpr long NS_PER_MS = 1'000'000;
static constexpr int64_t NS_PER_S = 1'000'000'000;

namespace {

struct Orders {
  int forks = 0;  // into the background
  long slow_ms = 0;
  bool again = false;
  std::string again_word;
  std::string title;
  int workers = 0;
  bool workers_follow = false;
  std::string name;
};

}  // namespace

static Orders orders;
static char *text_begin = nullptr;  // of what the kernel shows: the words, then the environment
static char *text_end = nullptr;

// ---- what it tells --------------------------------------------------------------------------

// The system call, not the C library: nothing may come between us and the real clock.
static int64_t now_ns() {
  timespec now{};
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * NS_PER_S + now.tv_nsec;
}

static std::string executable() {
  char target[4096];
  const ssize_t got = readlink("/proc/self/exe", target, sizeof target);
  return got < 0 ? std::string("?") : std::string(target, static_cast<size_t>(got));
}

// One write on an append-only descriptor: lines of several processes do not mix.
static void append_line(const std::string &line) {
  const std::string text = line + "\n", path = "/data/victim." + orders.name;
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return;
  (void)!write(fd, text.data(), text.size());
  close(fd);
}

static std::string groups() {
  gid_t ids[64];
  const int count = getgroups(static_cast<int>(sizeof ids / sizeof *ids), ids);
  std::string text;
  for (int i = 0; i < count; i++)
    text += (i == 0 ? "" : " ") + std::to_string(ids[i]);
  return text;
}

static void report_birth(int64_t main_ns, const std::string &words) {
  append_line("birth\tpid=" + std::to_string(getpid()) + "\tppid=" + std::to_string(getppid()) +
              "\tsid=" + std::to_string(getsid(0)) + "\tpgrp=" + std::to_string(getpgrp()) +
              "\tmain_ns=" + std::to_string(main_ns) + "\targv=" + words + "\tgroups=" + groups() +
              "\tend=1");
}

// ---- what it does -----------------------------------------------------------------------------

static void sleep_ms(long ms) {
  timespec left{ms / 1000, (ms % 1000) * NS_PER_MS};
  while (nanosleep(&left, &left) < 0) {
  }
}

static void execute_again(int argc, char **argv) {
  std::vector<char *> words(argv, argv + argc);
  if (!orders.again_word.empty()) words.push_back(orders.again_word.data());
  words.push_back(nullptr);
  setenv(AGAIN_MARK, "1", 1);
  execv(executable().c_str(), words.data());
  _exit(EXIT_FAILURE);
}

static void go_to_the_background() {
  for (int i = 0; i < orders.forks; i++) {
    const pid_t child = fork();
    if (child != 0) _exit(child < 0 ? EXIT_FAILURE : EXIT_SUCCESS);
    if (i == 0) setsid();
  }
}

// The environment stands right behind the words; whoever writes over it has moved it before.
static void find_text(char **argv) {
  text_begin = argv[0];
  for (char **word = argv; *word != nullptr; word++)
    text_end = *word + strlen(*word) + 1;
  for (char **variable = environ; *variable != nullptr; variable++)
    if (*variable == text_end) text_end = *variable + strlen(*variable) + 1;
}

static void write_title(const std::string &title) {
  if (orders.title.empty()) return;
  const std::string text = orders.name + ": " + title;
  const size_t size = static_cast<size_t>(text_end - text_begin);
  memset(text_begin, 0, size);
  memcpy(text_begin, text.data(), text.size() < size ? text.size() : size - 1);
}

static void work(pid_t master) {
  if (orders.workers_follow) prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (orders.workers_follow && getppid() != master) _exit(EXIT_SUCCESS);
  write_title("worker");
  for (;;)
    pause();
}

static void start_workers() {
  const pid_t master = getpid();
  for (int i = 0; i < orders.workers; i++) {
    const pid_t worker = fork();
    if (worker == 0) work(master);
    append_line("note\tworker " + std::to_string(worker));
  }
}

// ---- how it begins ----------------------------------------------------------------------------

static void parse_word(const std::string &word) {
  const size_t equals = word.find('=');
  const std::string key = word.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
  const int number = atoi(value.c_str());
  if (key == "background") orders.forks = value.empty() ? 1 : number;
  if (key == "slow") orders.slow_ms = number;
  if (key == "again") {
    orders.again = true;
    orders.again_word = value;
  }
  if (key == "title") orders.title = value;
  if (key == "workers") orders.workers = number;
  if (key == "workers-follow") orders.workers_follow = true;
  if (key == "as") orders.name = value;
}

static std::string joined(int argc, char **argv) {
  std::string text;
  for (int i = 0; i < argc; i++)
    text += std::string(i == 0 ? "" : " ") + argv[i];
  return text;
}

int main(int argc, char **argv) {
  const int64_t main_ns = now_ns();
  const std::string exe = executable();
  orders.name = exe.substr(exe.rfind('/') + 1);
  for (int i = 1; i < argc; i++)
    parse_word(argv[i]);
  sleep_ms(orders.slow_ms);
  if (orders.again && getenv(AGAIN_MARK) == nullptr) execute_again(argc, argv);
  const std::string words = joined(argc, argv);
  find_text(argv);
  clearenv();
  go_to_the_background();
  write_title(orders.title);
  start_workers();
  report_birth(main_ns, words);
  for (;;)
    pause();
}
