// Looking executables up in list files: against the kernel's links and the C library's reading.
#include "util/list_file.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "tests/support/child.h"

namespace {

constexpr char LIST[] = "/tmp/list";

void write_list(const std::string &text) {
  std::ofstream(LIST) << text;
}

struct answer_s {
  int found;
  std::string word;
};

answer_s look_up(const char *name, int size = 128) {
  std::vector<char> out(static_cast<size_t>(size), 'x');
  const int found = tov_proc_in_tovdb(LIST, name, out.data(), size);
  return {found, std::string(out.data(), strnlen(out.data(), out.size()))};
}

std::string own_exe() {
  char path[PATH_MAX] = {};
  EXPECT_GT(readlink("/proc/self/exe", path, sizeof path - 1), 0);
  return path;
}

}  // namespace

TEST(PidToProc, ReadsTheExecutableIntoAZeroedBuffer) {
  char buf[1024];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(pid_to_proc(getpid(), buf, sizeof buf), 1);
  EXPECT_EQ(std::string(buf), own_exe());
  EXPECT_EQ(buf[sizeof buf - 1], '\0');
}

TEST(PidToProc, FailsForAZombie) {
  const tov_test::Zombie child;
  char buf[16] = "x";
  EXPECT_EQ(pid_to_proc(child.pid(), buf, sizeof buf), 0);
}

TEST(TovProcInTovdb, WrongKindsOfFileAreEmpty) {
  unlink(LIST);
  ASSERT_EQ(mkfifo(LIST, 0644), 0);
  EXPECT_EQ(look_up("/opt/a").found, 0);  // and does not wait for a writer
  unlink(LIST);
  ASSERT_EQ(mkdir(LIST, 0755), 0);
  EXPECT_EQ(look_up("/opt/a").found, 0);
  rmdir(LIST);
}

// Against the C library's own reading, with a file much larger than any buffer.
TEST(TovProcInTovdb, AgreesWithFgets) {
  std::string text;
  unsigned int seed = 1;
  for (int i = 0; i < 400; i++) {
    seed = seed * 1103515245 + 12345;
    const size_t length = (seed >> 16) % 1500;
    std::string line(length, static_cast<char>('a' + i % 26));
    if (length > 20) line.replace(length - 20, 8, "/p" + std::to_string(1000 + i) + " z");
    text += line + "\n";
  }
  write_list(text);
  for (int i = 0; i < 400; i++) {
    const std::string name = "/p" + std::to_string(1000 + i);
    answer_s expected{0, ""};
    FILE *file = fopen(LIST, "r");
    char line[1024];
    while (fgets(line, sizeof line, file) != nullptr) {
      if (strstr(line, name.c_str()) == nullptr) continue;
      const char *blank = strrchr(line, ' ');
      if (blank != nullptr) expected = {1, blank + 1};
      break;
    }
    fclose(file);
    const answer_s got = look_up(name.c_str());
    EXPECT_EQ(got.found, expected.found) << name;
    EXPECT_EQ(got.word, expected.word) << name;
  }
}

TEST(TovPidInTovdb, LooksUpTheExecutableOfAProcess) {
  write_list(own_exe() + " TOV_RESTART\n");
  char word[128] = {};
  EXPECT_EQ(tov_pid_in_tovdb(getpid(), LIST, word, sizeof word), 1);
  EXPECT_STREQ(word, "TOV_RESTART\n");
  EXPECT_EQ(tov_pid_in_tovdb(getpid(), "/tmp/no_such_list", word, sizeof word), 0);
  EXPECT_EQ(tov_pid_in_tovdb(-1, LIST, word, sizeof word), 0);
  write_list("/no/such/program TOV_RESTART\n");
  EXPECT_EQ(tov_pid_in_tovdb(getpid(), LIST, word, sizeof word), 0);
}
