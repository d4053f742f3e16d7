// A stand-in for the daemon: takes requests at its socket and answers as a test wants.
//
// One thread serves one client at a time, one request after the other, and records what came. Only
// inside a private root: it takes over the path of the daemon's socket.
#ifndef TOV_TEST_MODULE_FAKE_DAEMON_H
#define TOV_TEST_MODULE_FAKE_DAEMON_H

#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "include/tov_ras_comp_config.h"
#include "include/tov_wire.h"
#include "util/owner.h"

namespace tov_test {

// What came of one request.
struct Request {
  std::vector<char> packet;  // the whole of it
  bool answered = false;     // an answer was due and reached the client
  std::string client;        // path of the client's end

  const tov_msg_head_t &head() const {
    return *reinterpret_cast<const tov_msg_head_t *>(packet.data());
  }
  template <typename Record>
  Record payload() const {
    Record record{};
    if (packet.size() < sizeof(tov_msg_head_t) + sizeof record) throw std::length_error("payload");
    memcpy(&record, packet.data() + sizeof(tov_msg_head_t), sizeof record);
    return record;
  }
};

// How it behaves. Change it only while no request is under way.
struct Manners {
  bool answer = true;                  // acknowledge what wants it
  std::chrono::milliseconds think{0};  // before the answer
  bool held = false;                   // no answer before let_go()
  int hang_up = 0;                     // so many requests are answered by closing instead
  std::vector<char> answer_bytes = std::vector<char>(sizeof(tov_msg_head_t));
};

// So long a client waits for an answer that does not come; whoever is back earlier has not waited.
inline constexpr std::chrono::milliseconds LONGEST_WAIT_FOR_AN_ANSWER{4900};

class FakeDaemon {
 public:
  explicit FakeDaemon(Manners manners = {}) : manners_(std::move(manners)) {
    mkdir(TOV_RUN_DIR, 0777);
    unlink(TOV_SOCKET_PATH);
    listener_ = tov_fd_t(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un at{};
    at.sun_family = AF_UNIX;
    snprintf(at.sun_path, sizeof at.sun_path, "%s", TOV_SOCKET_PATH);
    const auto length =
        static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(at.sun_path));
    if (bind(listener_.n, reinterpret_cast<sockaddr *>(&at), length) < 0 ||
        listen(listener_.n, 2048) < 0)
      throw std::runtime_error(std::string("fake daemon: ") + strerror(errno));
    thread_ = std::thread([this] { run(); });
  }
  FakeDaemon(const FakeDaemon &) = delete;
  FakeDaemon &operator=(const FakeDaemon &) = delete;
  ~FakeDaemon() {
    ending_ = true;
    thread_.join();
    unlink(TOV_SOCKET_PATH);
  }

  // Waits until `count` requests have come and been dealt with; returns all that came.
  std::vector<Request> requests(size_t count,
                                std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return requests_.size() >= count; });
    return requests_;
  }

  // The only request that came.
  Request only_request() {
    const std::vector<Request> all = requests(1);
    if (all.size() != 1) throw std::length_error(std::to_string(all.size()) + " requests");
    return all[0];
  }

  size_t connections() const { return connections_; }

  // Ends what `held` began, for good.
  void let_go() { let_go_ = true; }

 private:
  static constexpr int LOOK_MS = 5;

  void run() {
    while (!ending_) {
      std::vector<pollfd> asked = {{listener_.n, POLLIN, 0}};
      for (const tov_fd_t &client : clients_)
        asked.push_back({client.n, POLLIN, 0});
      if (poll(asked.data(), asked.size(), LOOK_MS) <= 0) continue;
      for (size_t i = 0; i < clients_.size(); i++) {
        if (asked[i + 1].revents != 0 && !serve(clients_[i].n)) clients_[i].reset();
      }
      std::erase_if(clients_, [](const tov_fd_t &client) { return client.n < 0; });
      // Clients wait for their turn in the listening queue, as they do with a busy daemon; but one
      // that keeps its connection open must not keep the next one out.
      if (asked[0].revents == 0) continue;
      clients_.emplace_back(accept4(listener_.n, nullptr, nullptr, SOCK_CLOEXEC));
      connections_++;
    }
  }

  // Returns false when the client is to be dropped.
  bool serve(int client) {
    Request request;
    request.packet.resize(1 << 18);
    const ssize_t length = recv(client, request.packet.data(), request.packet.size(), 0);
    if (length <= 0) return false;
    request.packet.resize(static_cast<size_t>(length));
    sockaddr_un peer{};
    socklen_t peer_length = sizeof peer;
    getpeername(client, reinterpret_cast<sockaddr *>(&peer), &peer_length);
    request.client = peer.sun_path;

    bool stays = true;
    if (manners_.hang_up > 0) {
      manners_.hang_up--;
      stays = false;
    } else if (manners_.answer && request.head().type != TOV_RESET) {
      std::this_thread::sleep_for(manners_.think);
      while (manners_.held && !let_go_ && !ending_)
        std::this_thread::sleep_for(std::chrono::milliseconds(LOOK_MS));
      request.answered = send(client, manners_.answer_bytes.data(), manners_.answer_bytes.size(),
                              MSG_DONTWAIT | MSG_NOSIGNAL) > 0;
    }
    const std::lock_guard lock(mutex_);
    requests_.push_back(std::move(request));
    changed_.notify_all();
    return stays;
  }

  Manners manners_;
  tov_fd_t listener_;
  std::vector<tov_fd_t> clients_;
  std::atomic<bool> ending_{false};
  std::atomic<bool> let_go_{false};
  std::atomic<size_t> connections_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Request> requests_;
  std::thread thread_;
};

// Puts something at the daemon's socket path that refuses at once, so that "no daemon" does not
// take five seconds: a stream socket, which a sequenced-packet client cannot connect to.
class RefusingSocket {
 public:
  RefusingSocket() : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    mkdir(TOV_RUN_DIR, 0777);
    unlink(TOV_SOCKET_PATH);
    sockaddr_un at{};
    at.sun_family = AF_UNIX;
    snprintf(at.sun_path, sizeof at.sun_path, "%s", TOV_SOCKET_PATH);
    if (bind(fd_.n, reinterpret_cast<sockaddr *>(&at), sizeof at) < 0 || listen(fd_.n, 8) < 0)
      throw std::runtime_error(std::string("refusing socket: ") + strerror(errno));
  }
  ~RefusingSocket() { unlink(TOV_SOCKET_PATH); }
  RefusingSocket(const RefusingSocket &) = delete;
  RefusingSocket &operator=(const RefusingSocket &) = delete;

 private:
  tov_fd_t fd_;
};

// How often a client tried to connect in vain, by its diagnostics.
inline size_t attempts_told_in(const std::string &printed) {
  static constexpr char ATTEMPT[] = "tov_connect: connect refused, wait and retry(";
  size_t count = 0;
  for (size_t at = printed.find(ATTEMPT); at != std::string::npos;
       at = printed.find(ATTEMPT, at + 1))
    count++;
  return count;
}

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_FAKE_DAEMON_H
