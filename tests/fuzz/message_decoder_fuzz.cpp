// The decoder of requests and the handlers behind it against arbitrary packets: anybody may connect
// to the registration socket, and one thread of a root process serves them all.
//
// An input is a series of packets, each with its length in two bytes before it (little-endian; the
// last one takes what is left). For every packet it is known from its bytes alone whether the
// client stays and whether it gets an answer.
#include <fcntl.h>
#include <stdint.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "core/registry/tov_chain.h"
#include "core/server/request.h"
#include "include/tov_registry.h"
#include "include/tov_wire.h"
#include "tests/fuzz/require.h"

// The handlers remove registration files by their fixed names, and an input may name any process of
// the machine. Its files are not ours to remove.
extern "C" int unlink(const char *path) noexcept {
  if (strncmp(path, "/tmp/vsd/", 9) == 0) return 0;
  return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

namespace {

constexpr size_t HEAD = sizeof(tov_msg_head_t);

// A client and the daemon's end of its connection.
struct connection_s {
  int client = -1;
  int daemon = -1;
  connection_s() { open(); }
  ~connection_s() { shut(); }
  void open() {
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    client = ends[0];
    daemon = ends[1];
  }
  void shut() {
    close(client);
    close(daemon);
  }
};

// What the daemon has to do with a packet.
struct verdict_s {
  bool stays;
  bool answered;
};

verdict_s verdict_on(const std::string &packet) {
  if (packet.size() < HEAD) return {false, false};
  tov_msg_head_t head{};
  memcpy(&head, packet.data(), HEAD);
  if (head.len < 0 || packet.size() - HEAD < static_cast<size_t>(head.len)) return {false, false};
  switch (head.type) {
    case TOV_RESTART:
    case TOV_SHELL_RESTART:
    case TOV_MSG_ACK:
    case TOV_MSG_CONS:
      return {true, true};
    case TOV_RESET:
      return {true, false};
    default:
      return {false, false};
  }
}

// Makes every other process id ours: of a random one the daemon would learn that it is gone, and
// get no further.
void name_living_processes(std::string *packet) {
  if (packet->size() < HEAD + sizeof(pid_t)) return;
  pid_t pid = 0;
  memcpy(&pid, packet->data() + HEAD, sizeof pid);
  if (pid % 2 == 0) return;
  pid = getpid();
  memcpy(packet->data() + HEAD, &pid, sizeof pid);
}

// Takes the answer off the client's queue. True when there was one, which must be a head of zeroes.
bool take_answer(int client) {
  char answer[HEAD + 1];
  const ssize_t length = recv(client, answer, sizeof answer, MSG_DONTWAIT);
  if (length < 0) return false;
  require(length == static_cast<ssize_t>(HEAD));
  require(std::all_of(answer, answer + HEAD, [](char byte) { return byte == 0; }));
  return true;
}

void check_registry(tov_chains_t &chains) {
  const tov_chains_guard_t hold(chains);
  int count = 0;
  for (const tov_pid_t &record : tov_chain_records(&chains)) {
    require(record.pid > 0);
    require(memchr(record.process, '\0', sizeof record.process) != nullptr);
    require(memchr(record.pathname, '\0', sizeof record.pathname) != nullptr);
    count++;
  }
  require(count == chains.node_num);
}

void serve(connection_s *connection, std::string packet) {
  name_living_processes(&packet);
  require(send(connection->client, packet.data(), packet.size(), MSG_NOSIGNAL) ==
          static_cast<ssize_t>(packet.size()));
  const verdict_s expected = verdict_on(packet);
  require(tov_recv_domain_msg(connection->daemon) == (expected.stays ? 0 : -1));
  require(take_answer(connection->client) == expected.answered);
  if (expected.stays) return;
  connection->shut();
  connection->open();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static connection_s connection;
  for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains})
    tov_init_chains(chains);

  std::string rest(reinterpret_cast<const char *>(data), size);
  while (rest.size() >= 2) {
    const size_t wanted =
        static_cast<uint8_t>(rest[0]) + (static_cast<size_t>(static_cast<uint8_t>(rest[1])) << 8);
    const size_t length = std::min(wanted, rest.size() - 2);
    serve(&connection, rest.substr(2, length));
    rest.erase(0, 2 + length);
  }
  for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains}) {
    check_registry(*chains);
    tov_destroy_chains(chains);
  }
  return 0;
}
