// Programs that know nothing of the daemon: real ones, listed by name. They are registered when
// they start, restarted when they die, and found again by name when they fork themselves away.
//
// The programs are copied to a directory of the test's own, because the daemon finds them by their
// command line among all processes of the machine.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <ios>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "include/tov_wire.h"
#include "tests/device/story.h"
#include "tests/support/device.h"
#include "tests/support/event_log.h"
#include "tests/support/processes.h"
#include "util/owner.h"

using namespace tov_test;
using testing::IsEmpty;
using testing::SizeIs;

// A real program under a path of its own.
struct Service {
  std::string directory;
  std::string program;
  std::string command;  // as the daemon reads it from the process
  int port;
};

static bool is_free(int port) {
  const tov_fd_t probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int yes = 1;  // as the services do: a connection that has ended is no obstacle
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_port = htons(static_cast<uint16_t>(port));
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return setsockopt(probe.n, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes) == 0 &&
         bind(probe.n, reinterpret_cast<sockaddr *>(&at), sizeof at) == 0;
}

// Services that listen get a port that no other test process uses at the same time, below those
// that the kernel gives out by itself.
static int next_port() {
  static constexpr int FIRST = 20'000, PROCESSES = 1'200, EACH = 10;
  static int used = 0;
  for (;;) {
    const int port = FIRST + (getpid() * EACH + used++) % (PROCESSES * EACH);
    if (is_free(port)) return port;
  }
}

static std::string find_program(const std::vector<std::string> &places) {
  for (const std::string &place : places)
    if (std::filesystem::exists(place)) return std::filesystem::canonical(place);
  throw std::runtime_error(places[0] + " is missing; script/bootstrap installs it");
}

static Service install_service(Device &device, const std::string &prefix,
                               const std::string &original, const std::string &file_name) {
  Service service;
  service.directory = "/opt/" + unique_name(prefix);
  service.program = service.directory + "/" + file_name;
  service.command = service.program;
  service.port = next_port();
  device.mkdir(service.directory);
  std::ifstream from(original, std::ios::binary);
  device.write(service.program, {std::istreambuf_iterator<char>(from), {}}, 0755);
  return service;
}

// Lists a program as an operator does; the daemon reads the directory when it starts.
static void list_service(Device &device, const Service &service, const std::string &type) {
  const std::string name = service.directory.substr(service.directory.rfind('/') + 1);
  device.write("/etc/tov/proc/" + name, service.command + " " + type);
}

// A proxy that forks itself into the background and needs no words.
static Service install_tinyproxy(Device &device) {
  Service service = install_service(device, "proxy", find_program({"/usr/bin/tinyproxy"}), "proxy");
  device.write("/etc/tinyproxy/tinyproxy.conf", "Port " + std::to_string(service.port) +
                                                    "\nListen 127.0.0.1\nTimeout 60\n"
                                                    "LogLevel Error\nMaxClients 5\n");
  return service;
}

// A web server; with the word -f it stays in front, otherwise it forks itself into the background.
static Service install_httpd(Device &device, bool in_front) {
  Service service =
      install_service(device, "web", find_program({"/bin/busybox", "/usr/bin/busybox"}), "busybox");
  service.command += std::string(" httpd") + (in_front ? " -f" : "") +
                     " -p 127.0.0.1:" + std::to_string(service.port) + " -h " + service.directory;
  return service;
}

static std::vector<std::string> words_of(const std::string &command) {
  std::vector<std::string> words;
  std::istringstream text(command);
  for (std::string word; text >> word;)
    words.push_back(word);
  return words;
}

// Does a process listen at the service's port? Asked without connecting: for each connection the
// web server forks a child of the same command line, which the daemon may find in its place.
static bool listens(const Service &service) {
  char address[32];  // as /proc/net/tcp has it, with the state "listening" two columns later
  snprintf(address, sizeof address, " 0100007F:%04X 00000000:0000 0A ",
           static_cast<unsigned int>(service.port));
  return read_small_file("/proc/net/tcp").find(address) != std::string::npos;
}

static std::vector<pid_t> instances(const Device &device, const Service &service) {
  std::vector<pid_t> pids;
  for (const auto &process : device.processes())
    if (process.command == service.command) pids.push_back(process.pid);
  return pids;
}

// The only instance, as soon as there is exactly one, it serves, and it is none of the `others`.
static pid_t only_instance(const Device &device, const Service &service,
                           const std::vector<pid_t> &others = {}) {
  std::vector<pid_t> pids;
  const bool found = wait_until(
      [&] {
        pids = instances(device, service);
        return pids.size() == 1 && listens(service) &&
               std::find(others.begin(), others.end(), pids[0]) == others.end();
      },
      STORY_LIMIT_MS);
  if (!found) throw std::runtime_error(service.command + " does not run\n" + device.dump());
  return pids[0];
}

static std::string registered(const Service &service, pid_t pid, int action) {
  return "register - process:" + service.command + " pid:" + std::to_string(pid) +
         ", vsd_id:0, action:" + std::to_string(action);
}

static std::string name_of(const Service &service) {
  return service.command.substr(service.command.rfind('/') + 1);
}

// ---- a program that forks itself into the background ------------------------------------------

// The only instance of those that went on their way into the background, if the daemon knows it.
static pid_t known_instance(const Device &device, const Service &service) {
  const std::vector<pid_t> pids = instances(device, service);
  if (pids.size() != 1 || !listens(service)) return 0;
  const std::string started = "[" + service.program + "] new pid: " + std::to_string(pids[0]);
  const bool known = device.count_events(REGISTER_LOG, registered(service, pids[0], RESPAWN)) > 0 ||
                     device.count_events(RUN_LOG, started) > 0;
  return known ? pids[0] : 0;
}

// Waits until such an instance has come and stays. 0 when it does not come to this.
static pid_t supervised_background(const Device &device, const Service &service, pid_t before,
                                   Millis limit) {
  static constexpr Millis STAYS_MS{100};
  pid_t running = 0;
  const bool stays = wait_until(
      [&] {
        running = known_instance(device, service);
        if (running == 0 || running == before) return false;
        std::this_thread::sleep_for(STAYS_MS);
        return known_instance(device, service) == running;
      },
      limit);
  return stays ? running : 0;
}

// The daemon learns of the program by its execution, or soon after, where what was executed had
// ended before it was looked into.
static pid_t start_background(Device &device, const Service &service) {
  const pid_t executed = device.spawn({service.program});
  const pid_t running = supervised_background(device, service, executed, STORY_LIMIT_MS);
  if (running == 0)
    throw std::runtime_error(service.command + " is not registered\n" + device.dump());
  return running;
}

TEST(ThirdPart, BackgroundProgramIsFoundByNameWheneverItStarts) {
  Device device;
  const Service service = install_tinyproxy(device);
  list_service(device, service, "TOV_RESTART");
  device.start_ready_daemon();
  EXPECT_EQ(device.read("/etc/tov/third_part_proc"), service.command + " TOV_RESTART\n");

  // What was executed ends at once; what it left behind is supervised.
  pid_t running = start_background(device, service);
  EXPECT_EQ(status_field(running, "PPid"), std::to_string(getpid())) << "an orphan";
  for (int count = 1; count <= 2; count++) {
    const pid_t dead = running;
    device.kill(dead, SIGKILL);
    running = supervised_background(device, service, dead, STORY_LIMIT_MS);
    ASSERT_NE(running, 0) << device.dump();
    need_event(device, RESTART_LOG,
               "Task: " + name_of(service) + "/" + std::to_string(dead) + " receives event:0009");
  }
  EXPECT_GE(
      device.count_events(RUN_LOG, "tov_spawn--> third part Daemon[" + service.program + "]") +
          device.count_events(RUN_LOG, "tov_spawn--> third part Normal[" + service.program + "]"),
      2U);
  // The front may be gone before the handler or the server has looked at it, which is said and does
  // no harm.
  EXPECT_THAT(
      device.event_log(ERROR_LOG),
      testing::Each(testing::AnyOf(testing::HasSubstr("TOV fail to get cmdline"),
                                   testing::HasSubstr("tov_process_restart: fail to get pid"))));

  // It handles the signal and leaves with status 0, which to the daemon is no deliberate stop.
  const pid_t asked_to_end = running;
  device.kill(asked_to_end, SIGTERM);
  EXPECT_NE(supervised_background(device, service, asked_to_end, STORY_LIMIT_MS), 0);
}

// ---- a program that stays in front --------------------------------------------------------------

TEST(ThirdPart, ProgramInFrontIsRestartedByItsScript) {
  Device device;
  const Service service = install_httpd(device, true);
  list_service(device, service, "TOV_SHELL_RESTART");
  device.write("/etc/cmdmap/busybox.sh", "exec " + service.command + "\n");
  device.start_ready_daemon();
  pid_t running = device.spawn(words_of(service.command));
  EXPECT_EQ(only_instance(device, service), running);
  need_event(device, REGISTER_LOG, registered(service, running, SHELL_RESTART));

  for (int count = 1; count <= 3; count++) {
    const pid_t dead = running;
    device.kill(dead, SIGKILL);
    running = only_instance(device, service, {dead});
    need_event(device, RUN_LOG,
               "tov_shell_spawn--> third part Normal[" + service.command +
                   "] new pid: " + std::to_string(running));
    need_event(device, RESTART_LOG,
               "HA_SCRIPT_SELF_CHECK_INFO Self-checking OK: " + std::to_string(count) +
                   " times and new id " + name_of(service) + "/" + std::to_string(running));
  }
  device.kill(running, SIGTERM);
  need_event(device, RUN_LOG,
             "Task:" + service.command + ",pid:" + std::to_string(running) +
                 ",vsd_no:-1,killed by signal 15 from others.");
  EXPECT_THAT(instances(device, service), IsEmpty());
}

// It is known by being the child that was started; its first word is not its command line.
TEST(ThirdPart, ProgramWithArgumentsIsSupervisedAtOnceAfterItsReturn) {
  Device device;
  const Service service = install_httpd(device, true);
  list_service(device, service, "TOV_RESTART");
  device.start_ready_daemon();
  pid_t running = device.spawn(words_of(service.command));
  need_event(device, REGISTER_LOG, registered(service, running, RESPAWN));
  only_instance(device, service);
  for (int count = 1; count <= 4; count++) {
    const pid_t dead = running;
    device.kill(dead, SIGKILL);
    running = only_instance(device, service, {dead});
    need_event(device, RUN_LOG,
               "tov_spawn--> third part Normal[" + service.program +
                   "] new pid: " + std::to_string(running));
    need_event(device, RESTART_LOG,
               "HA_SELF_CHECK_INFO Self-checking OK: " + std::to_string(count) +
                   " times and new id " + name_of(service) + "/" + std::to_string(running));
  }
  EXPECT_THAT(device.event_log(ERROR_LOG), IsEmpty());
}

// Starts many processes that end one by one, a millisecond apart, from a while later on, and are
// buried at once.
static void start_dying_crowd(Device &device) {
  device.remove("/data/crowd");
  device.spawn({"/bin/sh", "-c",
                "i=0; while [ $i -lt 300 ]; do sleep 0.$((500 + i)) & i=$((i + 1)); done; "
                "touch /data/crowd; wait"});
  wait_until([&] { return device.exists("/data/crowd"); }, STORY_LIMIT_MS);
}

// Whatever ends while the daemon looks through all processes makes its look incomplete.
TEST(ThirdPart, ProgramThatAnOperatorStartedAgainIsNotStartedTwice) {
  static constexpr Millis CROWD_DIES_MS{100};
  Device device;
  const Service service = install_httpd(device, true);
  list_service(device, service, "TOV_RESTART");
  const pid_t daemon = device.start_ready_daemon();
  pid_t running = device.spawn(words_of(service.command));
  need_event(device, REGISTER_LOG, registered(service, running, RESPAWN));
  only_instance(device, service);
  for (int round = 0; round < 3; round++) {
    // The daemon learns of the death only after the operator was there.
    device.kill(daemon, SIGSTOP);
    const pid_t dead = running;
    device.kill(dead, SIGKILL);
    ASSERT_TRUE(device.wait(dead, STORY_LIMIT_MS));
    start_dying_crowd(device);
    running = device.spawn(words_of(service.command));
    only_instance(device, service, {dead});
    std::this_thread::sleep_for(CROWD_DIES_MS);
    device.kill(daemon, SIGCONT);
    need_event(device, REGISTER_LOG, registered(service, running, RESPAWN));
    EXPECT_FALSE(device.exists(Device::register_path(0, dead, service.command)));
    EXPECT_EQ(only_instance(device, service), running);
  }
  EXPECT_EQ(device.count_events(RUN_LOG, "third part"), 0U) << "nothing was started";
}

// ---- the daemon's own files -------------------------------------------------------------------

TEST(ThirdPart, ProgramIsSupervisedOnByAFreshDaemon) {
  Device device;
  const Service service = install_httpd(device, true);
  list_service(device, service, "TOV_SHELL_RESTART");
  device.write("/etc/cmdmap/busybox.sh", "exec " + service.command + "\n");
  device.start_ready_daemon();
  const pid_t first = device.spawn(words_of(service.command));
  need_event(device, REGISTER_LOG, registered(service, first, SHELL_RESTART));
  ASSERT_TRUE(device.kill_daemon());
  device.start_ready_daemon();
  device.kill(first, SIGKILL);
  const pid_t second = only_instance(device, service, {first});
  need_event(device, RUN_LOG,
             "tov_shell_spawn--> third part Normal[" + service.command +
                 "] new pid: " + std::to_string(second));
}

TEST(ThirdPart, CrashingProgramDoesNotUseUpTheDaemonsDescriptors) {
  static constexpr int LIVES = 4;  // as many as a burst allows
  Device device;
  const Service service = install_httpd(device, true);
  list_service(device, service, "TOV_SHELL_RESTART");
  device.write("/etc/cmdmap/busybox.sh", "exec " + service.command + "\n");
  const pid_t daemon = device.start_ready_daemon();
  pid_t running = device.spawn(words_of(service.command));
  need_event(device, REGISTER_LOG, registered(service, running, SHELL_RESTART));
  const auto held = [daemon] { return descriptors_of(daemon, "/tov/db/"); };
  EXPECT_EQ(held(), 1U);
  for (int life = 0; life < LIVES; life++) {
    const pid_t dead = running;
    device.kill(dead, SIGKILL);
    running = only_instance(device, service, {dead});
    need_event(device, RESTART_LOG, "new id " + name_of(service) + "/" + std::to_string(running));
    // The file goes over to the new process.
    EXPECT_TRUE(wait_until(
        [&] { return device.exists(Device::register_path(0, running, service.command)); },
        STORY_LIMIT_MS));
  }
  // Only who registers by himself has his file kept open.
  EXPECT_TRUE(wait_until([&] { return held() == 0; }, STORY_LIMIT_MS)) << held();
  EXPECT_THAT(device.list("/tmp/vsd/0/tov/db"), SizeIs(1));
}

TEST(ThirdPart, UnlistedProgramIsNotRegistered) {
  Device device;
  const Service service = install_httpd(device, true);
  const Service listed = install_httpd(device, true);
  list_service(device, listed, "TOV_SHELL_RESTART");
  device.start_ready_daemon();
  device.spawn(words_of(service.command));
  const pid_t known = device.spawn(words_of(listed.command));
  need_event(device, REGISTER_LOG, registered(listed, known, SHELL_RESTART));
  EXPECT_EQ(event_texts(device, REGISTER_LOG).size(), 1U);
  EXPECT_THAT(device.list("/tmp/vsd/0/tov/db"), SizeIs(1));
}
