// Requests as the server's thread takes them, one at a time.
//
// Losses: a request whose acknowledgement cannot be sent at once is not carried out.
//
// Tested by: tests/module/core/server/server_test.cpp
#include "core/server/request.h"

#include "client/requests/table.h"
#include "client/tov_rpc_message.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "log/tov_dbg.h"
#include "log/tov_log.h"
#include "util/owner.h"

// What comes of a type that has no row.
static void print_unknown(int type) {
  TOV_DBG("recv unknown type msg %d\n", type);
}

int tov_rsp_domain_msg(int sd, tov_msg_head_t *msg) {
  const int type = static_cast<int>(msg->type);
  const tov_request_t *request = tov_request_of(type);
  if (request == nullptr) {
    print_unknown(type);
    return -1;
  }
  if (!request->acknowledged) return 0;
  tov_msg_head_t answer{};
  const int ret = tov_inner_send_msg(sd, &answer);
  if (ret != 0) {
    TOV_DBG("%s: tov_inner_send_msg err(ret:%d, sk:%d, type:%d)!\n", __func__, ret, sd, type);
  }
  return ret;
}

// A type without a row. The acknowledgement refuses it first, so only another caller of the
// dispatch can come here.
static int refuse_type(int type) {
  print_unknown(type);
  tov_log_with_type(TOV_LOG_ERROR, "domain recv unknown type[%d] msg.\n", type);
  return -1;
}

// Says what came of a request, in a diagnostic alone: the client was acknowledged before.
static void print_result(int type, int err) {
  TOV_DBG("%s type:%d err:%d\n", "tov_dispatch_domain_msg", type, err);
}

void tov_dispatch_domain_msg(int type, char *pathname, [[maybe_unused]] int sd, void *data) {
  const tov_request_t *request = tov_request_of(type);
  print_result(type, request != nullptr ? request->handle(pathname, data) : refuse_type(type));
}

int tov_recv_domain_msg(int sd) {
  tov_msg_head_t *received = nullptr;
  int ret = tov_inner_recv_msg(sd, &received);
  if (ret != 0) {
    TOV_DBG("%s: tov_inner_recv_msg err(ret:%d, sk:%d)!\n", __func__, ret, sd);
    return -1;
  }
  const tov_block_t<tov_msg_head_t> msg(received);
  ret = tov_rsp_domain_msg(sd, msg.get());
  if (ret != 0) {
    TOV_DBG("%s: tov_inner_rsp_msg err(ret:%d, sk:%d)!\n", __func__, ret, sd);
    return -1;
  }
  // A record that came in part was acknowledged like any other and is refused here, before a
  // handler could read what was not sent.
  const int type = static_cast<int>(msg->type);
  if (tov_msg_check_payload(type, msg->len) == 0) {
    tov_dispatch_domain_msg(type, msg->pathname, sd, msg->data);
  } else {
    print_result(type, -1);
  }
  return 0;
}
