// Calls a function for virtual devices: `vsd_caller FUNCTION [number...]`.
//
// It stands for the tools that limit, stop or measure devices: no command of the daemon's own
// executable reaches these functions. It prints "FUNCTION RESULT" and leaves with status 0; the
// memory functions print a line "DEVICE KILOBYTES" for each device from 0 to 15.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "log/tov_dbg.h"
#include "util/tov_utils.h"
#include "vsd/tov_vsd.h"

static int limit_memory(int vsd_no, int kilobytes) {
  return set_mem_group(vsd_no, static_cast<uint64_t>(kilobytes));
}

static int remove_group(int vsd_no, int) {
  char path[64];
  (void)snprintf(path, sizeof path, "/memory/vsd_%d/", vsd_no);
  return delete_dir(path);
}

static int sweep(int usleep_time, int) {
  poll_use_mem(static_cast<uint64_t>(usleep_time));
  for (int vsd_no = 0; vsd_no < TOV_VSD_RSS_NUM; vsd_no++)
    printf("%d %llu\n", vsd_no, static_cast<unsigned long long>(array_rss[vsd_no]));
  return 0;
}

static int sweep_and_publish(int, int) {
  set_vsd_mem();
  for (int vsd_no = 0; vsd_no < TOV_VSD_RSS_NUM; vsd_no++)
    printf("%d %llu\n", vsd_no, static_cast<unsigned long long>(vsd_use_mem(vsd_no)));
  return 0;
}

static constexpr struct {
  const char *name;
  int (*call)(int first, int second);
} functions[] = {
    {"set_cgroups_all", [](int vsd_no, int) { return set_cgroups_all(vsd_no); }},
    {"set_mem_group", limit_memory},
    {"set_cpu_group", set_cpu_group},
    {"stop_vsd", [](int vsd_no, int) { return stop_vsd(vsd_no); }},
    {"reload_vsd", [](int vsd_no, int) { return reload_vsd(vsd_no); }},
    {"delete_vsd_file", [](int vsd_no, int) { return delete_vsd_file(vsd_no); }},
    {"delete_dir", remove_group},
    {"poll_use_mem", sweep},
    {"set_vsd_mem", sweep_and_publish},
};

int main(int argc, char **argv) {
  const int first = argc > 2 ? tov_atoi(argv[2]) : 0;
  const int second = argc > 3 ? tov_atoi(argv[3]) : 0;
  (void)tov_parse_dbg_file();
  for (const auto &function : functions) {
    if (argc < 2 || strcmp(argv[1], function.name) != 0) continue;
    printf("%s %d\n", function.name, function.call(first, second));
    return EXIT_SUCCESS;
  }
  fprintf(stderr, "no such function\n");
  return EXIT_FAILURE;
}
