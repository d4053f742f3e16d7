// Builds a private root file system, step by step (the last function of this file lists them).
//
// A tmpfs mounted over /tmp of the new namespace is the building site: it holds the overlay's
// upper and work directories and the mount point of the new root. The switch to the new root hides
// it; the overlay keeps using it.
#include "tests/support/root_builder.h"

#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/support/control_groups.h"
#include "util/owner.h"

namespace tov_test {

namespace fs = std::filesystem;

static constexpr const char *SITE = "/tmp";
static const std::string ROOT = "/tmp/root";

// What an earlier run on the machine itself may have left; a private root begins without it.
static constexpr const char *cleared[] = {
    "/qxos",          "/qx_cfg",        "/run/tov",        "/etc/tov",
    "/etc/cmdmap",    "/etc/vsd",       "/etc/tov_config", "/etc/dev_mon",
    "/etc/debug_log", "/tov_no_reboot", "/debug_time",     "/tov_dump_msg_console"};
static constexpr const char *empty_directories[] = {"/etc/tov", "/etc/cmdmap"};
// Hidden by a mount of the new root, so whatever lies there must be bound to stay visible.
static constexpr const char *hidden[] = {"/tmp", "/data",   "/data2", "/dev",
                                         "/sys", "/memory", "/cpu"};
static constexpr const char *bound_nodes[] = {"null", "zero", "full", "random", "urandom", "tty"};
static constexpr struct {
  const char *name;
  const char *target;
} dev_links[] = {{"fd", "/proc/self/fd"},
                 {"stdin", "/proc/self/fd/0"},
                 {"stdout", "/proc/self/fd/1"},
                 {"stderr", "/proc/self/fd/2"},
                 {"ptmx", "pts/ptmx"}};

static void check(bool done, const std::string &step) {
  if (!done) throw std::runtime_error("private root: " + step + ": " + strerror(errno));
}

static void make_directory(const std::string &path) {
  std::error_code failure;
  fs::create_directories(path, failure);
  errno = failure.value();
  check(!failure, "mkdir " + path);
}

static void make_file(const std::string &path) {
  const tov_fd_t file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  check(file.n >= 0, "create " + path);
}

static void mount_tmpfs(const std::string &path, const char *options) {
  make_directory(path);
  check(mount("tov", path.c_str(), "tmpfs", 0, options) == 0, "mount tmpfs on " + path);
}

static void bind(const std::string &from, const std::string &to, unsigned long flags = 0) {
  check(mount(from.c_str(), to.c_str(), nullptr, MS_BIND | flags, nullptr) == 0,
        "bind " + from + " to " + to);
}

static std::string fd_path(int fd) {
  return "/proc/self/fd/" + std::to_string(fd);
}

static void open_namespaces() {
  check(unshare(CLONE_NEWNS | CLONE_NEWIPC) == 0, "unshare mount and IPC namespaces");
  // Without this our mounts would appear on the machine, too.
  check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");
}

namespace {

struct Kept {
  std::string path;
  tov_fd_t directory;
};

}  // namespace

static bool stays_visible(const std::string &path) {
#ifdef TOV_COVERAGE
  // Counters must reach the real build directory, so it is bound instead.
  if (path == TOV_BUILD_DIR) return false;
#endif
  for (const char *prefix : hidden)
    if (path.starts_with(std::string(prefix) + "/")) return false;
  struct stat root {
  }, found{};
  check(stat("/", &root) == 0 && stat(path.c_str(), &found) == 0, "stat " + path);
  return root.st_dev == found.st_dev;
}

// Must run before the building site hides /tmp: an open directory can be bound all the same.
static std::vector<Kept> open_kept(const std::vector<std::string> &visible) {
  std::vector<Kept> kept;
  for (const std::string &path : visible) {
    if (stays_visible(path)) continue;
    tov_fd_t directory(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    check(directory.n >= 0, "open " + path);
    kept.push_back({path, std::move(directory)});
  }
  return kept;
}

static void mount_overlay() {
  check(mount("tov", SITE, "tmpfs", 0, "mode=0755") == 0, "mount the building site");
  for (const char *name : {"/upper", "/work", "/root"})
    make_directory(std::string(SITE) + name);
  check(mount("tov", ROOT.c_str(), "overlay", 0,
              "lowerdir=/,upperdir=/tmp/upper,workdir=/tmp/work") == 0,
        "mount the overlay");
}

static void clear_leftovers() {
  for (const char *path : cleared) {
    std::error_code failure;
    fs::remove_all(ROOT + path, failure);
    errno = failure.value();
    check(!failure, std::string("remove ") + path);
  }
  for (const char *path : empty_directories)
    make_directory(ROOT + path);
}

static void mount_trees(const RootPlan &plan) {
  mount_tmpfs(ROOT + "/tmp", "mode=1777");
  mount_tmpfs(ROOT + "/data", "mode=0755");
  if (plan.data2)
    mount_tmpfs(ROOT + "/data2", "mode=0755");
  else
    fs::remove_all(ROOT + "/data2");
  mount_tmpfs(ROOT + "/sys", "mode=0755");
  bind("/proc", ROOT + "/proc", MS_REC);
}

static void mount_dev() {
  const std::string dev = ROOT + "/dev";
  mount_tmpfs(dev, "mode=0755");
  for (const char *name : bound_nodes) {
    make_file(dev + "/" + name);
    bind(std::string("/dev/") + name, dev + "/" + name);
  }
  for (const auto &link : dev_links)
    check(symlink(link.target, (dev + "/" + link.name).c_str()) == 0,
          std::string("link /dev/") + link.name);
  mount_tmpfs(dev + "/shm", "mode=1777");
  make_directory(dev + "/pts");
  check(mount("tov", (dev + "/pts").c_str(), "devpts", 0, "mode=0620,ptmxmode=0666") == 0,
        "mount devpts");
}

static void bind_console_pty(NewRoot &made) {
  const std::string pts = ROOT + "/dev/pts/";
  made.console_master.n = open((pts + "ptmx").c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  check(made.console_master.n >= 0, "open ptmx");
  int unlocked = 0, number = -1;
  check(ioctl(made.console_master.n, TIOCSPTLCK, &unlocked) == 0, "unlock the pty");
  check(ioctl(made.console_master.n, TIOCGPTN, &number) == 0, "ask for the pty's number");
  const std::string slave = pts + std::to_string(number);
  made.console_slave.n = open(slave.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  check(made.console_slave.n >= 0, "open the pty's slave");
  // Raw: the text arrives byte for byte, and nothing that we might write comes back as an echo.
  termios mode{};
  check(tcgetattr(made.console_slave.n, &mode) == 0, "read the pty's mode");
  cfmakeraw(&mode);
  check(tcsetattr(made.console_slave.n, TCSANOW, &mode) == 0, "set the pty's mode");
  bind(slave, ROOT + "/dev/console");
}

static void make_console(Console kind, NewRoot &made) {
  make_file(ROOT + "/dev/console");
  if (kind == Console::PTY) bind_console_pty(made);
  if (kind == Console::NULL_DEVICE) bind("/dev/null", ROOT + "/dev/console");
}

static void bind_kept(const std::vector<Kept> &kept) {
  for (const Kept &one : kept) {
    make_directory(ROOT + one.path);
    bind(fd_path(one.directory.n), ROOT + one.path, MS_REC);
  }
}

// Both names of pivot_root are the same directory: the old root then lies on top of the new one
// and is taken off at once, so no mount point for it is needed.
static void switch_root() {
  check(chdir(ROOT.c_str()) == 0, "chdir to the new root");
  check(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
  check(umount2(".", MNT_DETACH) == 0, "take off the old root");
  check(chdir("/") == 0, "chdir /");
}

NewRoot enter_new_root(const RootPlan &plan) {
  NewRoot made;
  const mode_t umask_before = umask(022);
  open_namespaces();
  const std::vector<Kept> kept = open_kept(plan.visible);
  mount_overlay();
  clear_leftovers();
  mount_trees(plan);
  mount_dev();
  make_console(plan.console, made);
  bind_kept(kept);
  if (plan.control_groups) made.hierarchies = mount_control_groups(SITE, ROOT);
  switch_root();
  umask(umask_before);
  return made;
}

}  // namespace tov_test
