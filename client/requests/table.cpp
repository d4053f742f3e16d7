// The rows, and the proof that they are complete.
#include "client/requests/table.h"

#include <stddef.h>

#include <algorithm>
#include <iterator>
#include <span>

#include "client/requests/tov_msg.h"
#include "client/tov_rpc_message.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"

namespace {

// A handler behind the signature of the rows. The record's type, and so its size, is taken from the
// handler itself.
template <auto HANDLER>
struct adapter_s;

template <typename Record, int (*HANDLER)(Record *)>
struct adapter_s<HANDLER> {
  static constexpr size_t SIZE = sizeof(Record);
  static int handle(char * /*pathname*/, void *payload) {
    return HANDLER(static_cast<Record *>(payload));
  }
};

template <typename Record, int (*HANDLER)(Record *, char *pathname)>
struct adapter_s<HANDLER> {
  static constexpr size_t SIZE = sizeof(Record);
  static int handle(char *pathname, void *payload) {
    return HANDLER(static_cast<Record *>(payload), pathname);
  }
};

// Three columns of one word: a name, a size or a function of another handler cannot slip in.
#define REQUEST(type, handler)                                               \
  {                                                                          \
    type, tov_msg_is_acknowledged(type), #handler, adapter_s<handler>::SIZE, \
        adapter_s<handler>::handle                                           \
  }

constexpr tov_request_t requests[] = {
    REQUEST(TOV_RESTART, tov_process_restart),
    REQUEST(TOV_SHELL_RESTART, tov_process_shell_restart),
    REQUEST(TOV_MSG_ACK, tov_notifier_start),
    REQUEST(TOV_RESET, tov_notifier_reset),
    REQUEST(TOV_MSG_CONS, tov_process_cons_msg),
};

// How many message types are requests: each falls through those below it. Without a default, so
// that the compiler refuses (-Wswitch) an enumerator of TOV_MSG_TYPE that is not named here.
constexpr size_t count_requests(TOV_MSG_TYPE first) {
  size_t count = 0;
  switch (first) {
    case TOV_RESTART:  // NOLINT(bugprone-branch-clone): each counts itself and falls on
      count++;
      [[fallthrough]];
    case TOV_SHELL_RESTART:
      count++;
      [[fallthrough]];
    case TOV_MSG_ACK:
      count++;
      [[fallthrough]];
    case TOV_RESET:
      count++;
      [[fallthrough]];
    case TOV_MSG_CONS:
      count++;
      [[fallthrough]];
    case TOV_NORMAL_EXIT:  // the acknowledgement
      break;
  }
  return count;
}

// None missing, none extra, none twice: as many rows as requests, in ascending order.
static_assert(std::size(requests) == count_requests(TOV_RESTART));
static_assert([] {
  TOV_MSG_TYPE last = TOV_NORMAL_EXIT;
  for (const tov_request_t &request : requests) {
    if (request.type <= last) return false;
    last = request.type;
  }
  return true;
}());

}  // namespace

std::span<const tov_request_t> tov_requests(void) {
  return requests;
}

const tov_request_t *tov_request_of(int type) {
  const auto *row = std::find_if(
      std::begin(requests), std::end(requests),
      [type](const tov_request_t &request) { return static_cast<int>(request.type) == type; });
  return row != std::end(requests) ? row : nullptr;
}

int tov_msg_check_payload(int type, int len) {
  const tov_request_t *request = tov_request_of(type);
  if (request == nullptr) return 0;
  if (len >= 0 && static_cast<size_t>(len) >= request->payload_size) return 0;
  TOV_DBG("%s: payload too short(type:%d, len:%d)!\n", request->name, type, len);
  return -1;
}
