// Shows the daemon at work: `tov_demo [--shell]`, started by script/run.
//
// It opens a private device (tests/support/device.h), starts the daemon and the example programs
// in it, ends them in several ways and tells what the daemon does about it. With --shell the user
// is left inside the running device instead.
//
// Exit status: 0 when everything came back that should, 1 when something did not, 2 when the
// device or the daemon could not be started; with --shell the shell's own.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <exception>

#include "demo/shell.h"
#include "demo/stage.h"
#include "demo/story.h"

enum { EXIT_NOT_AS_EXPECTED = 1, EXIT_NOT_STARTED = 2 };

static constexpr char NEEDS[] =
    "\nThe demonstration needs: root with the right to mount and to receive process events\n"
    "(CAP_SYS_ADMIN, CAP_NET_ADMIN, CAP_SYS_NICE), the machine's first process-id and network\n"
    "namespaces, and an overlay file system. Containers usually have to be privileged.\n";

// Plays, or hands over to the shell. `opened` tells how far a failure let us come.
static int show(bool shell, bool *opened) {
  printf(
      "tov, a process supervisor, in a private device: its own files, console and system log.\n"
      "Nothing outside of it is touched; everything in it ends with this program.\n\n"
      "  seconds  who        what\n");
  tov_demo::Stage stage;
  tov_demo::open_scene(stage);
  *opened = true;
  if (shell) return tov_demo::run_shell(stage);
  const bool good = tov_demo::play(stage);
  stage.device().close();
  // The device reports what it cannot clean up as a failed assertion.
  const bool closed = !testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
  return good && closed ? EXIT_SUCCESS : EXIT_NOT_AS_EXPECTED;
}

int main(int argc, char **argv) {
  const bool shell = argc == 2 && strcmp(argv[1], "--shell") == 0;
  if (argc > 1 && !shell) {
    fprintf(stderr, "usage: %s [--shell]\n", argv[0]);
    return EXIT_NOT_STARTED;
  }
  int gtest_words = 1;
  testing::InitGoogleTest(&gtest_words, argv);
  bool opened = false;
  try {
    return show(shell, &opened);
  } catch (const std::exception &failure) {
    fflush(stdout);
    fprintf(stderr, "\n%s\n%s", failure.what(), opened ? "" : NEEDS);
    return opened ? EXIT_NOT_AS_EXPECTED : EXIT_NOT_STARTED;
  }
}
