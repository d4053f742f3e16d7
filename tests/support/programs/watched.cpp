// A watched program: its threads register for the watch over their liveness and do what they are
// told, one word at a time, or give signs of life at random moments.
//
// Tests copy it under names of their own (NAME: the file name of its executable). Thread 0 is the
// first one; the threads are called "sentry0", "sentry1", ... A word for thread N is written, with
// a line feed behind it, to /data/do.NAME.N; the thread removes the file, acts, and appends to
// /data/watched.NAME the line
//   PID N TID WORD RESULT
// and so it does with the word "ready" before anything else.
//
// The words:
//   register    register, RESULT is that of the call
//   register+   the same, ignoring aborts
//   alive       give one sign of life
//   live        from now on give signs of life all the time
//   hush        no longer
//   unregister  withdraw the registration
//   title       write another text over the command line of the process
//   end         end the thread, without a farewell
// On the command line (KEY=VALUE or plain, any order):
//   threads=N   start so many further threads (default none)
//   odd         register with an odd period, 180 s with 4 missed, instead of 120 s with 5
//   random=MS   no words: every thread registers and then gives signs of life at random moments, at
//               most so many milliseconds apart; thread N stops at signal SIGRTMIN + N
// Anything else is ignored: it tells the command lines of two instances apart.
//
// Linked statically, like the victim and for the same reason.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <time.h>
#include <tov/tov_xtach.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

static constexpr long TICK_MS = 3;
static constexpr unsigned int ODD = 1;
static constexpr unsigned int EVEN = 2;
static constexpr int MOST_THREADS = 8;

static std::string name;
static char *arguments = nullptr;  // one behind the other, as the kernel shows them
static size_t arguments_size = 0;
static unsigned int period = EVEN;  // the library looks only at odd or even
static int threads = 1;
static long random_ms = 0;
static std::atomic<bool> hushed[MOST_THREADS];

static void sleep_ms(long ms) {
  timespec left{ms / 1000, (ms % 1000) * 1'000'000};
  while (nanosleep(&left, &left) < 0 && errno == EINTR) {
  }
}

// One write on an append-only descriptor: lines of several threads do not mix.
static void report(int index, const std::string &word, int result) {
  const std::string path = "/data/watched." + name;
  const std::string line = std::to_string(getpid()) + " " + std::to_string(index) + " " +
                           std::to_string(gettid()) + " " + word + " " + std::to_string(result) +
                           "\n";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return;
  (void)!write(fd, line.data(), line.size());
  close(fd);
}

static int enrol() {
  return tov_client_reg_thread_notify(getpid(), gettid(), period, 1);
}

static int sign_of_life() {
  return tov_client_reset_thread_notify(getpid(), gettid(), period, 1);
}

// ---- by words -------------------------------------------------------------------------------

// The next word for a thread, without its line feed; empty when there is none yet.
static std::string next_word(int index) {
  const std::string path = "/data/do." + name + "." + std::to_string(index);
  char text[32] = "";
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return {};
  const ssize_t got = read(fd, text, sizeof text - 1);
  close(fd);
  if (got < 1 || text[got - 1] != '\n') return {};  // still being written
  unlink(path.c_str());
  return {text, static_cast<size_t>(got) - 1};
}

// As programs do that show their state there. The kernel reads the text where it found it first.
static int rewrite_title() {
  static constexpr char TITLE[] = "-\0busy";
  if (arguments_size < sizeof TITLE) return -1;
  memset(arguments, 0, arguments_size);
  memcpy(arguments, TITLE, sizeof TITLE);
  return 0;
}

static int obey(const std::string &word, bool *live) {
  if (word == "register") return enrol();
  if (word == "register+")
    return tov_client_reg_thread_notify_no_proc(getpid(), gettid(), period, 1);
  if (word == "alive") return sign_of_life();
  if (word == "unregister") return tov_client_unreg_thread_notify(gettid());
  if (word == "title") return rewrite_title();
  *live = word == "live" || (*live && word != "hush");
  return 0;
}

static void live_by_words(int index) {
  bool live = false;
  for (;;) {
    if (live) (void)sign_of_life();
    const std::string word = next_word(index);
    if (word == "end") return;
    if (word.empty()) {
      sleep_ms(TICK_MS);
    } else {
      report(index, word, obey(word, &live));
    }
  }
}

// ---- at random ------------------------------------------------------------------------------

static void hush(int number) {
  const int index = number - SIGRTMIN;
  if (index >= 0 && index < MOST_THREADS) hushed[index] = true;
}

static void live_at_random(int index) {
  uint64_t state = static_cast<uint64_t>(gettid());
  report(index, "register", enrol());
  for (;;) {
    state = state * 6364136223846793005U + 1442695040888963407U;
    sleep_ms(static_cast<long>((state >> 33) % static_cast<uint64_t>(random_ms)));
    if (!hushed[index]) (void)sign_of_life();
  }
}

// ---- threads --------------------------------------------------------------------------------

static void *live(void *arg) {
  const int index = static_cast<int>(reinterpret_cast<intptr_t>(arg));
  prctl(PR_SET_NAME, ("sentry" + std::to_string(index)).c_str());
  report(index, "ready", 0);
  if (random_ms > 0) {
    live_at_random(index);
  } else {
    live_by_words(index);
  }
  return nullptr;
}

static void parse_word(const std::string &word) {
  const size_t equals = word.find('=');
  const std::string key = word.substr(0, equals);
  const std::string value = equals == std::string::npos ? "" : word.substr(equals + 1);
  if (key == "threads") threads = 1 + atoi(value.c_str());
  if (key == "odd") period = ODD;
  if (key == "random") random_ms = atol(value.c_str());
}

int main(int argc, char **argv) {
  arguments = argv[0];
  arguments_size = static_cast<size_t>(argv[argc - 1] - argv[0]) + strlen(argv[argc - 1]) + 1;
  char exe[256] = "";
  (void)!readlink("/proc/self/exe", exe, sizeof exe - 1);
  name = strrchr(exe, '/') + 1;
  for (int i = 1; i < argc; i++)
    parse_word(argv[i]);
  if (threads > MOST_THREADS) return EXIT_FAILURE;

  struct sigaction action {};
  action.sa_handler = hush;
  action.sa_flags = SA_RESTART;
  for (int index = 0; index < threads; index++)
    sigaction(SIGRTMIN + index, &action, nullptr);
  for (intptr_t index = 1; index < threads; index++) {
    pthread_t thread;
    if (pthread_create(&thread, nullptr, live, reinterpret_cast<void *>(index)) != 0)
      return EXIT_FAILURE;
  }
  live(nullptr);
  for (;;)
    pause();  // told to end: the first thread stays, or the process would count as dead
}
