// The table of connected clients: which descriptors the registration server has accepted.
//
// A new client takes the lowest free slot and keeps it until it is removed. The server remembers
// the slot beside the descriptor, so that no client is searched for: coming and going costs the
// same however many are connected.
//
// Thread: the server's alone.
#ifndef TOV_CORE_SERVER_CLIENTS_H
#define TOV_CORE_SERVER_CLIENTS_H

#include <span>

enum {
  TOV_CLIENT_NUM = 2048  // connected clients at once
};

// Frees all slots; closes nothing. Before anything else.
void tov_clients_init(void);

// All slots: descriptors, and -1 for the free ones.
std::span<const int> tov_clients(void);

// How many slots are taken.
int tov_clients_count(void);

// Stores a client. Returns its slot, or -1 when all are taken. The descriptor is the table's from
// here on, until it is removed.
int tov_clients_add(int sd);

// Frees `slot` if it holds `sd`, which is the caller's to close again. Returns false when it does
// not; `slot` may be any number.
bool tov_clients_remove(int slot, int sd);

#endif  // TOV_CORE_SERVER_CLIENTS_H
