// A daemon in C++ that is started again by a script of its own.
//
//   c++ supervised_cpp.cpp $(pkg-config --cflags --libs --static tov) -o supervised_cpp
//   ./supervised_cpp /supervised
//
// Some programs cannot simply be executed again: something has to be cleaned up or mounted first.
// They name a script, here /etc/cmdmap/supervised.sh, which the supervisor runs with the argument
// "start"; the script starts the program. Without an argument the program is registered to be
// executed again.
#include <tov/tov_xtach.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

int main(int argc, char **argv) {
  if (argc > 1) {
    // Sent once and not acknowledged: -1 says that there is no daemon to take it.
    if (reg_process_exit_action_shell(0, TOV_SHELL_RESTART, argv[1]) < 0) {
      std::fprintf(stderr, "supervised_cpp: no supervisor, going on without\n");
    }
  } else {
    reg_process_exit_action(0, TOV_RESTART);
  }
  std::printf("supervised_cpp: process %d is registered\n", getpid());
  std::fflush(stdout);

  for (;;) {
    // A program that leaks descriptors ends itself here, after the fourth check in a row over its
    // limit, and starts again with none.
    tov_client_watch_process_fd(getpid());
    std::this_thread::sleep_for(std::chrono::seconds(10));
  }
}
