// A program with a watched worker thread: when the worker hangs, the process is ended and started
// again.
//
//   c++ watched_worker.cpp $(pkg-config --cflags --libs --static tov) -o watched_worker
//   ./watched_worker [hang]
//
// The first thread must be watched as well, or the worker is never counted down: the supervisor
// only counts for processes whose first thread is registered. With "hang" the worker stops giving
// signs of life after the first one; the process is ended some ten minutes later.
#include <tov/tov_xtach.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

// An even number chooses a period of 120 s and five missed ones, an odd number 180 s and four.
constexpr unsigned int PERIOD = 120;
constexpr unsigned int COUNT = 5;

std::atomic<bool> ending{false};

// Registers the calling thread for as long as it lives. To unregister matters: the kernel gives the
// id to another thread some day, which would inherit the countdown.
class Watched {
 public:
  Watched() {
    if (tov_client_reg_thread_notify(getpid(), tid_, PERIOD, COUNT) != 0) {
      std::fprintf(stderr, "watched_worker: thread %d is not watched\n", tid_);
    }
  }
  Watched(const Watched &) = delete;
  Watched &operator=(const Watched &) = delete;
  ~Watched() { tov_client_unreg_thread_notify(tid_); }

  // Cheap enough for every turn of the loop.
  void alive() const { tov_client_reset_thread_notify(getpid(), tid_, PERIOD, COUNT); }

 private:
  pid_t tid_ = gettid();
};

void work(bool hang) {
  const Watched watched;
  watched.alive();
  while (!ending) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // one piece of work
    if (!hang) watched.alive();
  }
}

}  // namespace

int main(int argc, char **argv) {
  const bool hang = argc > 1 && std::strcmp(argv[1], "hang") == 0;
  // Threads inherit the mask: the signal stays pending until the wait below takes it.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);

  reg_process_exit_action(0, TOV_RESTART);
  const Watched watched;
  std::thread worker(work, hang);
  std::printf("watched_worker: process %d is registered and watched\n", getpid());
  std::fflush(stdout);

  const timespec second = {.tv_sec = 1, .tv_nsec = 0};
  while (sigtimedwait(&term, nullptr, &second) != SIGTERM)
    watched.alive();

  ending = true;
  worker.join();
  tov_cancel_proc(0);
  return EXIT_SUCCESS;
}
