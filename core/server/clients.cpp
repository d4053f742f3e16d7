// The table of connected clients.
//
// Thread: the server's alone, hence no lock. Losses: none.
#include "core/server/clients.h"

#include <stddef.h>

#include <algorithm>
#include <iterator>
#include <span>

static int tov_clnt_sd[TOV_CLIENT_NUM];  // -1: a free slot
static size_t used;                      // slots from here on are free

static int *find_slot(int sd) {
  return std::find(tov_clnt_sd, tov_clnt_sd + used, sd);
}

void tov_clients_init(void) {
  std::fill(std::begin(tov_clnt_sd), std::end(tov_clnt_sd), -1);
  used = 0;
}

std::span<const int> tov_clients(void) {
  return {tov_clnt_sd, used};
}

bool tov_clients_add(int sd) {
  int *slot = find_slot(-1);  // without a gap: the first slot behind the used part
  if (slot == std::end(tov_clnt_sd)) return false;
  if (slot == tov_clnt_sd + used) used++;
  *slot = sd;
  return true;
}

bool tov_clients_remove(int sd) {
  int *slot = find_slot(sd);
  if (sd < 0 || slot == tov_clnt_sd + used) return false;
  *slot = -1;
  while (used > 0 && tov_clnt_sd[used - 1] < 0)
    used--;
  return true;
}
