// Real daemons of a distribution, which know nothing of us, all under one daemon: in front and in
// the background, with titles, with workers, listed with their arguments. Each runs exactly once,
// whatever happens to it, to the daemon, or to both.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdio.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"

using namespace tov_test;
using testing::IsEmpty;

static constexpr Millis BACK_MS{2'000};   // everybody, after a kill
static constexpr Millis SETTLES_MS{500};  // a second copy would show by then
static constexpr Millis HAND_LIMIT_MS{5'000};

namespace {

// As it is installed here: a copy of the program in a directory of its own, which tells its
// processes from the machine's.
struct RealDaemon {
  std::string label;
  std::string original;
  std::string words;               // DIR and PORT stand for its own
  std::string configuration = {};  // of DIR/conf, likewise
  bool in_background = false;
  int port = 0;
  std::string directory = {};
  std::string command = {};
};

class RealDaemons : public testing::Test {
 protected:
  RealDaemons() {
    device_.mkdir("/etc/dropbear");
    for (RealDaemon &daemon : daemons_)
      install(&daemon);
  }

  static std::vector<std::string> words_of(const std::string &command) {
    std::istringstream text(command);
    return {std::istream_iterator<std::string>(text), {}};
  }

  // Its processes, but for its workers.
  std::vector<pid_t> instances(const RealDaemon &daemon) const {
    const std::vector<pid_t> all = processes_of(daemon);
    std::vector<pid_t> masters;
    for (const pid_t pid : all) {
      const std::string parent = status_field(pid, "PPid");
      if (parent.empty()) continue;  // it has ended since
      if (std::find(all.begin(), all.end(), std::stoi(parent)) == all.end()) masters.push_back(pid);
    }
    return masters;
  }

  bool has_registration(pid_t pid) const {
    const auto files = device_.list("/tmp/vsd/0/tov/db");
    return std::any_of(files.begin(), files.end(), [&](const std::string &name) {
      return name[0] != '.' && name.ends_with("." + std::to_string(pid));
    });
  }

  // Whether it runs once, under the daemon's care, as another process than `dead`.
  bool is_supervised(const RealDaemon &daemon, pid_t dead = 0) const {
    const std::vector<pid_t> pids = instances(daemon);
    return pids.size() == 1 && pids[0] != dead && has_registration(pids[0]);
  }

  // Its processes that have a registration.
  std::vector<pid_t> registered(const RealDaemon &daemon) const {
    std::vector<pid_t> pids = processes_of(daemon);
    std::erase_if(pids, [&](pid_t pid) { return !has_registration(pid); });
    return pids;
  }

  void start_by_hand(const RealDaemon &daemon) {
    device_.spawn(words_of(daemon.command));
    EXPECT_TRUE(wait_until([&] { return is_supervised(daemon); }, HAND_LIMIT_MS))
        << daemon.label << "\n"
        << device_.dump();
  }
  void start_all_by_hand() {
    for (const RealDaemon &daemon : daemons_)
      start_by_hand(daemon);
  }

  void expect_all_once(const std::string &after) const {
    std::this_thread::sleep_for(SETTLES_MS * patience());
    for (const RealDaemon &daemon : daemons_)
      EXPECT_TRUE(is_supervised(daemon)) << daemon.label << " after " << after << ": "
                                         << testing::PrintToString(instances(daemon));
  }

  // Kills the given ones at once.
  std::vector<pid_t> kill(const std::vector<const RealDaemon *> &condemned) {
    std::vector<pid_t> dead;
    for (const RealDaemon *daemon : condemned) {
      const std::vector<pid_t> pids = instances(*daemon);
      if (pids.size() != 1) throw std::runtime_error(daemon->label + " does not run once");
      dead.push_back(pids[0]);
    }
    for (const pid_t pid : dead)
      device_.kill(pid, SIGKILL);
    return dead;
  }
  // Each is back, once.
  void expect_back(const std::vector<const RealDaemon *> &condemned,
                   const std::vector<pid_t> &dead) const {
    for (size_t i = 0; i < dead.size(); i++)
      EXPECT_TRUE(
          wait_until([&] { return is_supervised(*condemned[i], dead[i]); }, BACK_MS * patience()))
          << condemned[i]->label << " is not back\n"
          << device_.dump();
  }
  void kill_and_expect_back(const std::vector<const RealDaemon *> &condemned) {
    expect_back(condemned, kill(condemned));
  }
  std::vector<const RealDaemon *> all() const {
    std::vector<const RealDaemon *> pointers;
    for (const RealDaemon &daemon : daemons_)
      pointers.push_back(&daemon);
    return pointers;
  }

  // Every second one, from the first or from the second one on.
  std::vector<const RealDaemon *> half(size_t first) const {
    std::vector<const RealDaemon *> pointers;
    for (size_t i = first; i < daemons_.size(); i += 2)
      pointers.push_back(&daemons_[i]);
    return pointers;
  }
  const RealDaemon &daemon_of(const std::string &label) const {
    const auto is_it = [&](const RealDaemon &daemon) { return daemon.label == label; };
    return *std::find_if(daemons_.begin(), daemons_.end(), is_it);
  }

  Device device_;
  std::vector<RealDaemon> daemons_ = known();

 private:
  static std::vector<RealDaemon> known() {
    static const std::string DROPBEAR = "-R -E -P DIR/pid -p 127.0.0.1:PORT";
    static const std::string REDIS = "bind 127.0.0.1\nport PORT\nsave \"\"\ndir DIR\n";
    static const std::string RSYNC =
        "pid file = DIR/pid\nlog file = DIR/log\naddress = 127.0.0.1\n";
    static const std::string TINYPROXY = "Port PORT\nListen 127.0.0.1\nLogLevel Error\n";
    static const std::string DNSMASQ = "-C DIR/conf";
    static const std::string NAMES =
        "port=PORT\nlisten-address=127.0.0.1\nbind-interfaces\nuser=root\npid-file=DIR/pid\n";
    static const std::string DBUS =
        "<busconfig><type>session</type><listen>unix:path=DIR/bus</listen>"
        "<policy context=\"default\"><allow own=\"*\"/></policy></busconfig>\n";
    static const std::string UWSGI =
        "--master --processes 2 --reuse-port --http-socket 127.0.0.1:PORT";
    return {
        {"httpd in front", "/bin/busybox", "httpd -f -p 127.0.0.1:PORT -h DIR"},
        {"httpd", "/bin/busybox", "httpd -p 127.0.0.1:PORT -h DIR", {}, true},
        {"tinyproxy in front", "/usr/bin/tinyproxy", "-d -c DIR/conf", TINYPROXY},
        {"tinyproxy", "/usr/bin/tinyproxy", "-c DIR/conf", TINYPROXY, true},
        {"dnsmasq in front", "/usr/sbin/dnsmasq", "-k " + DNSMASQ, NAMES},
        {"dnsmasq", "/usr/sbin/dnsmasq", DNSMASQ, NAMES, true},
        {"dropbear in front", "/usr/sbin/dropbear", "-F " + DROPBEAR},
        {"dropbear", "/usr/sbin/dropbear", DROPBEAR, {}, true},
        {"redis in front", "/usr/bin/redis-check-rdb", "DIR/conf", REDIS},
        {"redis", "/usr/bin/redis-check-rdb", "DIR/conf", REDIS + "daemonize yes\n", true},
        {"rsync in front", "/usr/bin/rsync", "--daemon --no-detach --port=PORT --config=DIR/conf",
         RSYNC},
        {"rsync", "/usr/bin/rsync", "--daemon --port=PORT --config=DIR/conf", RSYNC, true},
        {"dbus in front", "/usr/bin/dbus-daemon", "--config-file=DIR/conf --nofork", DBUS},
        {"dbus", "/usr/bin/dbus-daemon", "--config-file=DIR/conf --fork", DBUS, true},
        {"uwsgi in front", "/usr/bin/uwsgi-core", UWSGI},
        {"uwsgi", "/usr/bin/uwsgi-core", UWSGI + " --daemonize DIR/log", {}, true},
        {"socat", "/usr/bin/socat", "TCP-LISTEN:PORT,bind=127.0.0.1,reuseaddr,fork PIPE"},
    };
  }

  static std::string filled_in(std::string text, const RealDaemon &daemon) {
    const auto replace = [&text](const std::string &what, const std::string &by) {
      for (size_t at = text.find(what); at != std::string::npos; at = text.find(what))
        text.replace(at, what.size(), by);
    };
    replace("DIR", daemon.directory);
    replace("PORT", std::to_string(daemon.port));
    return text;
  }

  // Ports below those that the kernel gives out by itself.
  static int next_port() {
    static constexpr int FIRST = 12'000, SPAN = 8'000;
    static int used = 0;
    return FIRST + (getpid() * 32 + used++) % SPAN;
  }

  void install(RealDaemon *daemon) {
    if (!std::filesystem::exists(daemon->original))
      throw std::runtime_error(daemon->original + " is missing; script/bootstrap installs it");
    std::string name = daemon->original.substr(daemon->original.rfind('/') + 1);
    // One program, which chooses what it is by its name.
    if (name == "redis-check-rdb") name = "redis-server";
    daemon->directory =
        "/opt/" + unique_name("real" + std::to_string(daemon - daemons_.data()) + "_");
    const std::string program = daemon->directory + "/" + name;
    daemon->port = next_port();
    device_.mkdir(daemon->directory, 0777);
    copy(*daemon, program);
    daemon->command = program + " " + filled_in(daemon->words, *daemon);
    if (!daemon->configuration.empty())
      device_.write(daemon->directory + "/conf", filled_in(daemon->configuration, *daemon));
    device_.write("/etc/tov/proc/" + daemon->directory.substr(daemon->directory.rfind('/') + 1),
                  daemon->command + " TOV_RESTART");
  }

 protected:
  void copy(const RealDaemon &daemon, const std::string &to) {
    std::ifstream from(daemon.original, std::ios::binary);
    device_.write(to, {std::istreambuf_iterator<char>(from), {}}, 0755);
  }

  // Workers and what has outlived its program included.
  std::vector<pid_t> processes_of(const RealDaemon &daemon) const {
    std::vector<pid_t> pids;
    for (const Device::Process &process : device_.processes()) {
      std::error_code gone;
      const std::string exe =
          std::filesystem::read_symlink("/proc/" + std::to_string(process.pid) + "/exe", gone);
      if (exe.find(daemon.directory + "/") != std::string::npos) pids.push_back(process.pid);
    }
    return pids;
  }
};

}  // namespace

// ---- killed ---------------------------------------------------------------------------------

TEST_F(RealDaemons, KilledAloneAndTogetherAreBackOnce) {
  device_.start_ready_daemon();
  start_all_by_hand();
  expect_all_once("their start by hand");
  for (const RealDaemon *daemon : all())
    kill_and_expect_back({daemon});
  expect_all_once("one death each");
  kill_and_expect_back(all());
  expect_all_once("the death of all");
  EXPECT_EQ(device_.count_events(ERROR_LOG, "Not Found new pid"), 0U);
}

// ---- sessions -------------------------------------------------------------------------------

// A session is a worker that outlives its program, executes the same file and shows the same words.
TEST_F(RealDaemons, SessionThatOutlivesItsProgramIsNotTakenForIt) {
  const RealDaemon &daemon = daemon_of("socat");
  device_.start_ready_daemon();
  start_by_hand(daemon);
  for (int count = 1; count <= 2; count++) {
    SCOPED_TRACE(count);
    const pid_t program = registered(daemon).at(0);
    const size_t before = processes_of(daemon).size();
    device_.spawn({daemon.original, "TCP:127.0.0.1:" + std::to_string(daemon.port), "PIPE"});
    ASSERT_TRUE(wait_until([&] { return processes_of(daemon).size() > before; }, HAND_LIMIT_MS));
    const std::vector<pid_t> others = processes_of(daemon);
    device_.kill(program, SIGKILL);
    const auto is_back = [&] {
      const std::vector<pid_t> pids = registered(daemon);
      return pids.size() == 1 && std::count(others.begin(), others.end(), pids[0]) == 0;
    };
    EXPECT_TRUE(wait_until(is_back, BACK_MS * patience())) << device_.dump();
    std::this_thread::sleep_for(SETTLES_MS * patience());
    EXPECT_TRUE(is_back());
    EXPECT_EQ(processes_of(daemon).size(), others.size()) << "the sessions and one program";
  }
}

// ---- left in peace --------------------------------------------------------------------------

TEST_F(RealDaemons, LeftInPeaceForAnHourAreLeftAlone) {
  static constexpr std::chrono::seconds HOUR{60};  // by the test's clock
  device_.start_ready_daemon({.faketime = "+0 x60"});
  start_all_by_hand();
  std::vector<std::vector<pid_t>> before;
  for (const RealDaemon &daemon : daemons_)
    before.push_back(instances(daemon));
  std::this_thread::sleep_for(HOUR);
  for (size_t i = 0; i < daemons_.size(); i++)
    EXPECT_EQ(instances(daemons_[i]), before[i]) << daemons_[i].label;
  expect_all_once("an hour");
  // By the machine's clock: for programs as slow as these its searches would be too short.
  device_.kill_daemon();
  device_.start_ready_daemon();
  kill_and_expect_back(all());
  expect_all_once("the death of all");
}

// ---- upgraded -------------------------------------------------------------------------------

TEST_F(RealDaemons, UpgradedOnDiskComeBackAsTheNewFile) {
  device_.start_ready_daemon();
  start_all_by_hand();
  for (const RealDaemon &daemon : daemons_) {
    const std::string program = daemon.command.substr(0, daemon.command.find(' '));
    copy(daemon, program + ".new");
    device_.run({"mv", program + ".new", program});
  }
  expect_all_once("the upgrade");
  kill_and_expect_back(all());
  for (const RealDaemon &daemon : daemons_)
    for (const pid_t pid : instances(daemon))
      EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/exe")
                    .string()
                    .find("(deleted)"),
                std::string::npos)
          << daemon.label;
}

// ---- without a daemon -----------------------------------------------------------------------

TEST_F(RealDaemons, NextDaemonsKnowThemAndBringBackWhoDiedMeanwhile) {
  device_.start_ready_daemon();
  start_all_by_hand();
  for (int round = 1; round <= 2; round++) {
    device_.kill_daemon();
    device_.start_ready_daemon();
    expect_all_once("daemon " + std::to_string(round));
  }
  kill_and_expect_back(all());

  for (size_t first = 0; first <= 1; first++) {
    device_.kill_daemon();
    const std::vector<pid_t> dead = kill(half(first));
    device_.start_ready_daemon();
    expect_back(half(first), dead);
    expect_all_once("deaths while no daemon was there");
  }
  kill_and_expect_back(all());
}

TEST_F(RealDaemons, KilledTogetherWithTheDaemonAreBackOnce) {
  device_.start_ready_daemon();
  start_all_by_hand();
  device_.kill(device_.daemon_pid(), SIGKILL);
  const std::vector<pid_t> dead = kill(all());
  ASSERT_TRUE(device_.wait_daemon(HAND_LIMIT_MS));
  device_.start_ready_daemon();
  expect_back(all(), dead);
  expect_all_once("the death of all and the daemon");
}

// They run before the first daemon.
TEST_F(RealDaemons, ThatRanBeforeAreSupervised) {
  for (const RealDaemon &daemon : daemons_)
    device_.spawn(words_of(daemon.command));
  std::this_thread::sleep_for(SETTLES_MS);
  device_.start_ready_daemon();
  std::vector<const RealDaemon *> untitled = all();
  std::erase_if(untitled, [](const RealDaemon *daemon) {
    return daemon->label.starts_with("redis");  // they show something else by now
  });
  for (const RealDaemon *daemon : untitled)
    EXPECT_TRUE(wait_until([&] { return is_supervised(*daemon); }, BACK_MS * patience()))
        << daemon->label;
  kill_and_expect_back(untitled);
}
