// The list of virtual devices, as the command line shows it: what the member directories hold, in
// the order in which the directory gives it. Whether a listed process still lives is not asked.
#include "vsd/show.h"

#include <stdio.h>

#include "include/tov_ras_comp_config.h"
#include "util/entries.h"
#include "vsd/path.h"

enum { SHOW_FIRST = 1, SHOW_LAST = 15 };

void show_vsd(void) {
  for (int vsd_no = SHOW_FIRST; vsd_no <= SHOW_LAST; vsd_no++) {
    const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no);
    tov_entries_t members(path.text);
    if (!members) continue;
    printf("Vsd_%d: %s\n", vsd_no, path.text);
    while (const char *name = members.next())
      printf("%s\n", name);
  }
}
