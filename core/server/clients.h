// The table of connected clients: which descriptors the registration server has accepted.
//
// A new client takes the lowest free slot. The used part of the table ends behind the highest
// occupied slot, so that a walk costs what the connected clients cost and not what the table could
// hold: the server walks it for every request.
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

// The used part of the table: descriptors, and -1 for the free slots among them. Valid until the
// next call of another function here.
std::span<const int> tov_clients(void);

// Stores a client. Returns false when all slots are taken. The descriptor is the table's from here
// on, until it is removed.
bool tov_clients_add(int sd);

// Frees the lowest slot that holds `sd`, which is the caller's to close again. Returns false when
// there is none.
bool tov_clients_remove(int sd);

#endif  // TOV_CORE_SERVER_CLIENTS_H
