// Opening and closing a private device.
#include "tests/support/device.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/children.h"
#include "tests/support/collector.h"
#include "tests/support/keeper_channel.h"
#include "tests/support/processes.h"
#include "tests/support/sanitizer_env.h"
#include "tests/support/spawn.h"
#include "util/owner.h"

namespace tov_test {

static constexpr Millis OPEN_LIMIT_MS{20'000};
static constexpr Millis CLOSE_LIMIT_MS{30'000};
static constexpr Millis REAP_LIMIT_MS{5'000};

static constexpr const char *console_words[] = {"null", "pty", "file"};  // by Console

[[noreturn]] static void fail(const std::string &step) {
  throw std::runtime_error("device: " + step + ": " + strerror(errno));
}

// The socket can be bound from outside: the address is looked up through the keeper's root.
static tov_fd_t bind_log(const std::string &path) {
  sockaddr_un at{};
  at.sun_family = AF_UNIX;
  if (path.size() >= sizeof at.sun_path) fail("log path too long");
  memcpy(at.sun_path, path.c_str(), path.size());
  tov_fd_t log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (log.n < 0 || bind(log.n, reinterpret_cast<sockaddr *>(&at), sizeof at) < 0)
    fail("bind /dev/log");
  chmod(path.c_str(), 0666);
  return log;
}

Device::Device(DeviceOptions options) : options_(std::move(options)) {
  if (options_.binary_dir.empty()) options_.binary_dir = TOV_BUILD_DIR;
  daemon_output_.n = memfd_create("daemon output", MFD_CLOEXEC);
  if (daemon_output_.n < 0) fail("memfd_create");
  fcntl(daemon_output_.n, F_SETFL, O_APPEND);
  adopt_orphans();
  start_keeper();
  open_ = true;
  mkdir(SANITIZER_DIR, 0777);
}

void Device::start_keeper() {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) < 0) fail("socketpair");
  keeper_socket_.n = ends[0];
  const tov_fd_t far_end(ends[1]);
  SpawnRequest keeper;
  keeper.argv = {TOV_BUILD_DIR "/tests/programs/device_keeper", std::to_string(getpid()),
                 std::string("--console=") + console_words[static_cast<int>(options_.console)]};
  for (const std::string &visible :
       {std::string(TOV_SOURCE_DIR), std::string(TOV_BUILD_DIR), options_.binary_dir})
    keeper.argv.push_back("--visible=" + visible);
  if (options_.data2) keeper.argv.emplace_back("--data2");
  keeper.env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin"};
  keeper.passed_fd = far_end.n;
  keeper_pid_ = spawn_process(keeper);
  auto ready = receive_message(keeper_socket_.n, OPEN_LIMIT_MS);
  if (!ready || ready->text != KEEPER_READY) {
    ::kill(keeper_pid_, SIGKILL);
    bury_child(keeper_pid_);
    throw std::runtime_error("device: " + (ready ? ready->text : "the keeper does not answer"));
  }
  open_namespaces(std::move(ready->descriptors));
}

void Device::open_namespaces(std::vector<tov_fd_t> console) {
  const std::string proc = "/proc/" + std::to_string(keeper_pid_) + "/";
  root_.n = ::open((proc + "root").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  mount_ns_.n = ::open((proc + "ns/mnt").c_str(), O_RDONLY | O_CLOEXEC);
  ipc_ns_.n = ::open((proc + "ns/ipc").c_str(), O_RDONLY | O_CLOEXEC);
  const auto found = mount_namespace_of(keeper_pid_);
  if (root_.n < 0 || mount_ns_.n < 0 || ipc_ns_.n < 0 || !found) fail("open " + proc);
  namespace_ = *found;
  tov_fd_t master;
  if (console.size() == 2) {
    master = std::move(console[0]);
    console_slave_ = std::move(console[1]);
  }
  collector_ = std::make_unique<Collector>(bind_log(path("/dev/log")), std::move(master));
}

// The keeper does it, or, if the keeper was killed, this process.
void Device::end_processes() {
  const bool asked = send_message(keeper_socket_.n, KEEPER_CLOSE);
  const auto answer = asked ? receive_message(keeper_socket_.n, CLOSE_LIMIT_MS) : std::nullopt;
  if (answer && answer->text == KEEPER_CLOSED) return;
  const auto machine = mount_namespace_of(getpid());
  const size_t left = end_processes_in(namespace_, machine.value(), keeper_pid_, REAP_LIMIT_MS);
  ADD_FAILURE() << "device: " << (answer ? answer->text : "the keeper is gone") << "; " << left
                << " processes left";
}

void Device::reap_children() {
  for (auto &[pid, status] : children_)
    if (!status) wait(pid, REAP_LIMIT_MS);
  ::kill(keeper_pid_, SIGKILL);  // it has done its work and is about to end
  bury_child(keeper_pid_);
  bury_orphans();
}

static bool test_has_failed() {
  const auto *test = testing::UnitTest::GetInstance()->current_test_info();
  return test != nullptr && test->result()->Failed();
}

void Device::close() {
  if (!open_) return;
  if (test_has_failed()) fprintf(stderr, "%s", dump().c_str());
  end_processes();
  // Only now, when no process is left to write one.
  const std::string reports = sanitizer_reports();
  if (!reports.empty() && !options_.expect_sanitizer_reports) ADD_FAILURE() << reports;
  collector_->stop();
  reap_children();
  open_ = false;
  for (tov_fd_t *fd : {&root_, &mount_ns_, &ipc_ns_, &console_slave_, &keeper_socket_})
    fd->reset();
}

Device::~Device() {
  try {
    close();
  } catch (const std::exception &failure) {
    ADD_FAILURE() << failure.what();
  }
}

}  // namespace tov_test
