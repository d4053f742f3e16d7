// The command line: which words do what, and which exit status they end with.
//
// Start scripts rely on the statuses and on the cases in which the daemon starts all the same, so
// both stay as they are, the odd ones included. getopt_long(3) may sort the words while it looks at
// them; a number is nevertheless the second word as it stands, wherever the option was found.
#include "vsd/tov_opt.h"

#include <dirent.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "include/tov_ras_comp_config.h"
#include "log/tov_dbg.h"
#include "util/owner.h"
#include "util/tov_utils.h"
#include "vsd/create.h"
#include "vsd/delete.h"
#include "vsd/path.h"
#include "vsd/show.h"

// Looks like a diagnostic and is printed always.
#define SAY(...) tov_dbg_print(__FILE_NAME__, __LINE__, __VA_ARGS__)

enum { STATUS_DONE = 0, STATUS_MALFORMED = 1, STATUS_TOO_MANY_WORDS = 0 };

// Words by their place.
enum { SECOND_WORD = 2, ADD_VERB = 1, ADD_PROGRAM = 2, ADD_NUMBER = 3 };

static constexpr const char *SHORT_OPTIONS = "hcdsv";
// No option takes an argument in getopt's sense: -c and -d read theirs from the second word.
static constexpr option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, 'h'},    {"create", no_argument, nullptr, 'c'},
    {"delete", no_argument, nullptr, 'd'},  {"show", no_argument, nullptr, 's'},
    {"version", no_argument, nullptr, 'v'}, {nullptr, 0, nullptr, 0},
};

static int next_option(int argc, char **argv) {
  return getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr);
}

static void say_input_error() {
  SAY("input error!!!input tov -h for help!!!\n");
}

// ---- commands -------------------------------------------------------------------------------

void tov_help(void) {
  static constexpr const char *usage[] = {
      "\n----------------------------------------\n",
      "Usage: \n",
      "Options are as follows:\n",
      " tov -c count             Create count vsd\n",
      " tov -d vsd_no            Delete vsd_no vsd\n",
      " tov -s                   Show all vsd\n",
      " tov -h                   Display help\n",
      " tov -v                   Display version\n",
      " tov add proc vsd_no      Add proc to vsd\n",
      "-------------------------------------------\n",
  };
  for (const char *line : usage)
    SAY("%s", line);
}

void tov_version(void) {
  SAY("This is TOV verison 1.0\n");
  printf("Copyright (c) the tov developers. MIT licence.\n");
}

// A device that fails does not keep the others from being created. The child of a failing one comes
// through here as well and creates the following ones, too.
static void create_devices(int count) {
  for (int done = 0; done < count; done++) {
    const int res = create_vsd(done + 1);
    if (res < 0) SAY("create vsd fail, error = %s.\n", strerror(-res));
  }
}

static void delete_device(int vsd_no) {
  const int res = delete_vsd(vsd_no);
  if (res < 0) SAY("delete %d vsd fail, error =%s.\n", vsd_no, strerror(-res));
}

static void add_program(char *program, int vsd_no) {
  const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_DIR_FMT, vsd_no);
  const tov_dir_t device(opendir(path.text));
  if (!device) {
    printf("vsd %d is not exist\n", vsd_no);
    return;
  }
  if (create_proc_to_vsd(program, vsd_no) < 0)
    SAY("add proc = %s to vsd = %d\n fail.\n", program, vsd_no);
}

// ---- dispatch by the number of words --------------------------------------------------------

static void handle_one_word(int argc, char **argv) {
  static constexpr struct {
    int letter;
    void (*run)();
  } commands[] = {{'s', show_vsd}, {'v', tov_version}, {'h', tov_help}};

  const int letter = next_option(argc, argv);
  for (const auto &command : commands) {
    if (command.letter != letter) continue;
    command.run();
    exit(STATUS_DONE);
  }
  say_input_error();
  if (letter != -1) exit(STATUS_MALFORMED);
}

static void handle_two_words(int argc, char **argv) {
  static constexpr struct {
    int letter;
    void (*run)(int number);
  } commands[] = {{'c', create_devices}, {'d', delete_device}};

  for (int letter = next_option(argc, argv); letter != -1; letter = next_option(argc, argv)) {
    void (*run)(int) = nullptr;
    for (const auto &command : commands)
      if (command.letter == letter) run = command.run;
    const int number = tov_atoi(argv[SECOND_WORD]);
    if (run != nullptr && number > 0) {
      run(number);
      exit(STATUS_DONE);
    }
    say_input_error();
    if (run == nullptr) exit(STATUS_MALFORMED);
  }
  say_input_error();
}

static void handle_three_words(int, char **argv) {
  if (strcmp(argv[ADD_VERB], "add") == 0) {
    add_program(argv[ADD_PROGRAM], tov_atoi(argv[ADD_NUMBER]));
    return;
  }
  say_input_error();
  exit(STATUS_MALFORMED);
}

void tov_handle_options(int argc, char **argv) {
  static constexpr struct {
    int argc;
    void (*handle)(int argc, char **argv);
  } forms[] = {{2, handle_one_word}, {3, handle_two_words}, {4, handle_three_words}};

  if (argc < 2) return;
  for (const auto &form : forms) {
    if (form.argc != argc) continue;
    form.handle(argc, argv);
    return;
  }
  say_input_error();
  exit(STATUS_TOO_MANY_WORDS);
}
