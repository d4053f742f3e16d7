// What the tests of creation and placement share: the device, scripts that tell how they were
// started, and a machine without traces of earlier cases.
#ifndef TOV_TEST_MODULE_VSD_DEVICE_H
#define TOV_TEST_MODULE_VSD_DEVICE_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include "tests/support/children.h"
#include "tests/support/files.h"
#include "tests/support/processes.h"

namespace tov_test {

// Of the devices that the platform knows, one whose group hardly anybody uses.
inline constexpr int VSD = 14;
inline const std::string N = std::to_string(VSD);
inline const std::string MEMBERS = "/tmp/vsd/" + N + "/tov";
inline const std::string SCRIPTS = "/etc/rc.d/rc.vsd/";
inline const std::string REPORT = "/data/report";

// Appends what a program is started with to the report, which appears whole.
inline const std::string TELL =
    "#!/bin/sh\n"
    "{ echo \"words=$0 $*\"; echo \"cwd=$(pwd -P)\"; echo \"pid=$$\"\n"
    "  grep ^Groups: /proc/$$/status; env | grep -E '^(QX|DATA|TMPDIR)'; echo umask=$(umask); } "
    "> /data/report.new; mv /data/report.new /data/report\n";

inline void write_script(const std::string &path, const std::string &text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  write_file(path, text);
  ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

// Lines of the report by what stands before the first "=" or ":".
inline std::map<std::string, std::string> report() {
  std::map<std::string, std::string> told;
  std::istringstream lines(read_file(REPORT));
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find_first_of("=:");
    std::string value = line.substr(at + 1);
    value.erase(0, value.find_first_not_of(" \t"));
    value.erase(value.find_last_not_of(' ') + 1);
    told[line.substr(0, at)] = value;
  }
  return told;
}

inline bool report_comes() {
  return wait_until([] { return std::filesystem::exists(REPORT); }, Millis(30'000));
}

class VsdDeviceTest : public testing::Test {
 protected:
  void SetUp() override {
    adopt_orphans();
    for (const char *name : {"QX_CFG_DIR", "QXOS_DIR", "DATA_QXOS_DIR", "DATA_QXOS_DIR2", "TMPDIR"})
      unsetenv(name);
    std::filesystem::create_directories(SCRIPTS);
    ASSERT_EQ(chdir("/etc"), 0);
  }
  void TearDown() override {
    ASSERT_EQ(chdir("/"), 0);
    for (const std::string &path :
         {std::string("/tmp/vsd"), std::string("/etc/vsd"), std::string("/data/var"),
          std::string("/data/.qxos"), std::string("/data2"), std::string("/qx_cfg"),
          std::string("/qxos"), SCRIPTS, REPORT, std::string("/etc/cmdmap")})
      std::filesystem::remove_all(path);
    std::filesystem::create_directories("/etc/cmdmap");
  }
};

}  // namespace tov_test

#endif  // TOV_TEST_MODULE_VSD_DEVICE_H
