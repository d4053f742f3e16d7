// The table of connected clients. A bit for each slot says whether it is free: the lowest one is
// found in at most 32 words.
//
// Thread: the server's alone, hence no lock. Losses: none.
//
// Tested by: tests/unit/core/server/clients_test.cpp
#include "core/server/clients.h"

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <bit>
#include <iterator>
#include <limits>
#include <span>

static constexpr size_t WORD_BITS = std::numeric_limits<uint64_t>::digits;
static_assert(TOV_CLIENT_NUM % WORD_BITS == 0);

static int tov_clnt_sd[TOV_CLIENT_NUM];  // -1: a free slot
static uint64_t free_slots[TOV_CLIENT_NUM / WORD_BITS];
static int taken;  // slots

static uint64_t bit_of(size_t slot) {
  return uint64_t{1} << slot % WORD_BITS;
}

void tov_clients_init(void) {
  std::ranges::fill(tov_clnt_sd, -1);
  std::ranges::fill(free_slots, ~uint64_t{0});
  taken = 0;
}

std::span<const int> tov_clients(void) {
  return tov_clnt_sd;
}

int tov_clients_count(void) {
  return taken;
}

int tov_clients_add(int sd) {
  uint64_t *const word = std::ranges::find_if(free_slots, [](uint64_t bits) { return bits != 0; });
  if (word == std::end(free_slots)) return -1;
  const size_t slot = static_cast<size_t>(word - free_slots) * WORD_BITS +
                      static_cast<size_t>(std::countr_zero(*word));
  *word &= ~bit_of(slot);
  tov_clnt_sd[slot] = sd;
  taken++;
  return static_cast<int>(slot);
}

bool tov_clients_remove(int slot, int sd) {
  if (slot < 0 || slot >= TOV_CLIENT_NUM || sd < 0 || tov_clnt_sd[slot] != sd) return false;
  const size_t at = static_cast<size_t>(slot);
  tov_clnt_sd[at] = -1;
  free_slots[at / WORD_BITS] |= bit_of(at);
  taken--;
  return true;
}
