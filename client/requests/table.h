// The requests of clients: one row for each, in the order of their message types.
//
// A row says all in which requests differ: who carries it out, which record it brings and whether
// its sender waits for an acknowledgement. Server, acknowledgement and the check of payloads read
// rows and know no request by name. A new request is an enumerator of TOV_MSG_TYPE, a handler and a
// row, for which the compiler asks, and a word in the tests that take the next number for no
// request (table_test, hostile_client_test, message_decoder_fuzz, fake_daemon.h). An older daemon
// closes the connection on a type that it does not know; one more event of TOV_MSG_CONS it passes
// over.
//
// Threads: any; the rows are constant. A handler's own threads and locks:
// client/requests/tov_msg.h.
#ifndef TOV_CLIENT_REQUESTS_TABLE_H
#define TOV_CLIENT_REQUESTS_TABLE_H

#include <stddef.h>

#include <span>

#include "include/tov_wire.h"

struct tov_request_s {
  TOV_MSG_TYPE type;    // the key
  bool acknowledged;    // the sender gets a head of zeros before the request is carried out
  const char *name;     // of the handler, for diagnostics
  size_t payload_size;  // bytes that the handler reads
  // Carries the request out.
  //   pathname  of the message's head
  //   payload   at least `payload_size` bytes, aligned as the record that lies in them
  // Returns the handler's result.
  int (*handle)(char *pathname, void *payload);
};
using tov_request_t = tov_request_s;

std::span<const tov_request_t> tov_requests(void);

// The row of a type as it came from the wire; null when it is no request.
const tov_request_t *tov_request_of(int type);

// Whether a request brought the whole record that its handler reads.
//   type  of the message
//   len   bytes of payload that really came
// Returns 0, or -1 (diagnostic printed). A type without a row needs nothing.
int tov_msg_check_payload(int type, int len);

#endif  // TOV_CLIENT_REQUESTS_TABLE_H
