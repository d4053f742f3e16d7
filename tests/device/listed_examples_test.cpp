// The worked examples of docs/operators.md, word for word: each program is started as it says
// there, supervised, and brought back.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/types.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/support/device.h"
#include "tests/support/processes.h"

using namespace tov_test;

static constexpr Millis BACK_MS{2'000};
static constexpr Millis SETTLES_MS{300};

namespace {

// The fenced blocks whose first line names a file, or says how the program is started.
struct Example {
  std::map<std::string, std::string> files;  // by path
  std::string start;
};

}  // namespace

static constexpr char STARTED[] = "how it is started";

static std::vector<Example> examples() {
  std::ifstream page(TOV_OPERATORS_PAGE);
  std::vector<Example> all(1);
  std::string *block = nullptr;
  bool is_fenced = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("```")) {
      is_fenced = !is_fenced;
      if (!is_fenced && block == &all.back().start) all.emplace_back();
      block = nullptr;
    } else if (is_fenced && block == nullptr && line.starts_with("# ")) {
      const std::string name = line.substr(2);
      block = name == STARTED ? &all.back().start : &all.back().files[name];
    } else if (is_fenced && block != nullptr) {
      *block += line + "\n";
    }
  }
  all.pop_back();  // begun behind the last one
  return all;
}

// What the examples' programs are configured with.
static void configure(Device &device) {
  device.write("/etc/dnsmasq.conf",
               "port=20951\nlisten-address=127.0.0.1\nbind-interfaces\n"
               "user=root\npid-file=/data/dnsmasq.pid\n");
  device.write("/etc/tinyproxy/tinyproxy.conf", "Port 20952\nListen 127.0.0.1\nLogLevel Error\n");
  device.write("/etc/redis.conf", "bind 127.0.0.1\nport 20953\nsave \"\"\ndir /data\n");
  if (!device.exists("/usr/bin/redis-server"))
    device.symlink("redis-check-rdb", "/usr/bin/redis-server");
}

// The processes of an example's program, which is the word behind "exec" or the first one.
static std::vector<pid_t> instances(const Device &device, const Example &example) {
  std::string program;
  std::istringstream(example.start) >> program;
  const std::string file = program == "/usr/bin/redis-server"
                               ? "redis-check-rdb"  // a link
                               : program.substr(program.rfind('/') + 1);
  std::vector<pid_t> pids;
  for (const Device::Process &process : device.processes()) {
    std::error_code gone;
    const auto exe =
        std::filesystem::read_symlink("/proc/" + std::to_string(process.pid) + "/exe", gone);
    if (exe.filename() == file) pids.push_back(process.pid);
  }
  return pids;
}

// The one instance that has a registration file; 0: there is none, or more than one instance.
static pid_t supervised(const Device &device, const Example &example) {
  const std::vector<pid_t> pids = instances(device, example);
  if (pids.size() != 1) return 0;
  for (const std::string &name : device.list("/tmp/vsd/0/tov/db"))
    if (name[0] != '.' && name.ends_with("." + std::to_string(pids[0]))) return pids[0];
  return 0;
}

// Who is to go to the background may be seen before he has: so the answer has to hold for a while.
static pid_t supervised_after(const Device &device, const Example &example, pid_t dead) {
  pid_t found = 0;
  const bool is_back = wait_until(
      [&] {
        found = supervised(device, example);
        if (found == 0 || found == dead) return false;
        std::this_thread::sleep_for(SETTLES_MS);
        return supervised(device, example) == found;
      },
      BACK_MS * patience());
  EXPECT_TRUE(is_back) << example.start << device.dump();
  return found;
}

TEST(ListedExamples, AreSupervisedAsTheGuideSays) {
  const std::vector<Example> all = examples();
  ASSERT_EQ(all.size(), 3U);
  Device device;
  configure(device);
  for (const Example &example : all)
    for (const auto &[path, text] : example.files)
      device.write(path, text, 0755);
  device.start_ready_daemon();
  for (const Example &example : all) {
    device.spawn({"/bin/sh", "-c", example.start});
    pid_t running = supervised_after(device, example, 0);
    for (int count = 0; count < 3; count++) {
      if (running == 0) break;
      device.kill(running, SIGKILL);
      running = supervised_after(device, example, running);
    }
  }
  device.kill_daemon();
  device.start_ready_daemon();
  for (const Example &example : all) {
    const pid_t running = supervised_after(device, example, 0);
    if (running == 0) continue;
    device.kill(running, SIGKILL);
    (void)supervised_after(device, example, running);
  }
}
