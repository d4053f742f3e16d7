// The list of virtual devices, as the command line shows it: what the member directories hold, in
// the order in which the directory gives it. Whether a listed process still lives is not asked.
#include "vsd/show.h"

#include <dirent.h>
#include <stdio.h>
#include <string.h>

#include "util/owner.h"
#include "vsd/path.h"

enum { SHOW_FIRST = 1, SHOW_LAST = 15 };

static void show_members(DIR *members) {
  while (const dirent *entry = readdir(members)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    printf("%s\n", entry->d_name);
  }
}

void show_vsd(void) {
  for (int vsd_no = SHOW_FIRST; vsd_no <= SHOW_LAST; vsd_no++) {
    const tov_vsd_path_t path = tov_vsd_path(TOV_VSD_MEMBER_DIR_FMT, vsd_no);
    const tov_dir_t members(opendir(path.text));
    if (!members) continue;
    printf("Vsd_%d: %s\n", vsd_no, path.text);
    show_members(members.get());
  }
}
