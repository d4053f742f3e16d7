// The system semaphore. A process caches its id for good, so each test acts in children.
#include "client/tov_xtach_sem.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "include/tov_registry.h"
#include "tests/module/failing_sem.h"
#include "tests/module/fake_sleep.h"
#include "tests/module/no_semaphores.h"
#include "tests/support/caught_diagnostics.h"
#include "tests/support/in_child.h"

namespace {

constexpr char KEY_FILE[] = "/tmp/.tov_semphore_path";
constexpr uid_t NOBODY = 65534;

int existing_set() {
  const key_t key = ftok(KEY_FILE, 1);
  return key == -1 ? -1 : semget(key, 0, 0);
}

class TovXtachSem : public testing::Test {
 protected:
  void SetUp() override {
    remove_set();
    ASSERT_EQ(system("rm -rf /tmp/.tov_semphore_path"), 0);
  }
  void TearDown() override { remove_set(); }

 private:
  static void remove_set() {
    const int id = existing_set();
    if (id >= 0) semctl(id, 0, IPC_RMID);
  }
};

// Runs `call`, returns its result and checks what it says.
template <typename Call>
int said_by(Call call, const std::string &expected) {
  int result = 99;
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_PUB, [&] { result = call(); });
  EXPECT_NE(said.find(expected), std::string::npos) << said;
  return result;
}

}  // namespace

TEST_F(TovXtachSem, FirstStartMakesFileAndSemaphore) {
  tov_test::in_child([] {
    umask(0);
    EXPECT_EQ(g_tov_sem_id, -1);
    EXPECT_EQ(tov_sem_init(), 0);
    EXPECT_EQ(tov_get_sem_id(), existing_set());
    EXPECT_EQ(tov_get_semval(), 0);
  });
  struct stat file {};
  ASSERT_EQ(stat(KEY_FILE, &file), 0);
  EXPECT_EQ(file.st_mode & 07777u, 0754u);
  semid_ds status{};
  ASSERT_EQ(semctl(existing_set(), 0, IPC_STAT, &status), 0);
  EXPECT_EQ(status.sem_perm.mode & 0777u, 0754u);
  EXPECT_EQ(status.sem_nsems, 1u);
}

TEST_F(TovXtachSem, SecondStartKeepsTheValueOfOthers) {
  tov_test::in_child([] { EXPECT_EQ(tov_sem_init(), 0); });
  ASSERT_EQ(semctl(existing_set(), 0, SETVAL, 5), 0);
  tov_test::in_child([] {
    EXPECT_EQ(said_by(tov_sem_init, "]System tov semaphore already inited."), 0);
    EXPECT_EQ(g_tov_sem_id, -1);  // looked up when it is needed
    EXPECT_EQ(tov_get_semval(), 5);
    EXPECT_EQ(g_tov_sem_id, existing_set());
  });
}

TEST_F(TovXtachSem, CachedIdOutlivesTheKeyFile) {
  tov_test::in_child([] {
    ASSERT_EQ(tov_sem_init(), 0);
    const int id = existing_set();
    ASSERT_EQ(unlink(KEY_FILE), 0);
    ASSERT_EQ(semctl(id, 0, SETVAL, 3), 0);
    EXPECT_EQ(tov_get_semval(), 3);
    ASSERT_EQ(semctl(id, 0, IPC_RMID), 0);
    EXPECT_EQ(said_by(tov_get_semval, "]Get tov sem count failed: "), -1);
  });
}

TEST_F(TovXtachSem, LookUpWithoutKeyFileOrSemaphore) {
  tov_test::in_child([] {
    EXPECT_EQ(said_by(tov_get_sem_id, "]Get sem file key failed: No such file or directory."), -1);
    EXPECT_EQ(said_by(tov_get_semval, "]tov get semid failed!\n"), -1);
    ASSERT_EQ(system("touch /tmp/.tov_semphore_path"), 0);
    EXPECT_EQ(said_by(tov_get_sem_id, "]Get tov sem failed: No such file or directory."), -1);
    EXPECT_EQ(g_tov_sem_id, -1);
  });
}

TEST_F(TovXtachSem, PlantedFilesOfOtherKindsFailTheStartOfTheSemaphore) {
  for (const char *plant : {"mkdir /tmp/.tov_semphore_path", "mkfifo /tmp/.tov_semphore_path",
                            "ln -s /tmp/nobody /tmp/.tov_semphore_path"}) {
    ASSERT_EQ(system(plant), 0);
    tov_test::in_child([] {
      EXPECT_EQ(said_by(tov_sem_init, "]Open file /tmp/.tov_semphore_path failed: "), -1);
    });
    ASSERT_EQ(system("rm -rf /tmp/.tov_semphore_path"), 0);
  }
  EXPECT_NE(access("/tmp/nobody", F_OK), 0);
}

TEST_F(TovXtachSem, SemaphoreThatCannotBeMade) {
  tov_test::no_semaphores_s none;
  tov_test::in_child([] {
    EXPECT_EQ(said_by(tov_sem_init, "]Get tov sem on init failed: No space left on device."), -1);
    EXPECT_EQ(g_tov_sem_id, -1);
  });
}

TEST_F(TovXtachSem, NewSemaphoreWithoutAValueIsRemoved) {
  tov_test::in_child([] {
    tov_test::failing_sem.set_value = ERANGE;
    EXPECT_EQ(said_by(tov_sem_init,
                      "]Set tov sem initial value failed: " + std::string(strerror(ERANGE)) + "."),
              -1);
  });
  EXPECT_EQ(access(KEY_FILE, F_OK), 0);
  EXPECT_EQ(existing_set(), -1);
  tov_test::in_child([] { EXPECT_EQ(tov_sem_init(), 0) << "the next start tries again"; });
}

TEST_F(TovXtachSem, KeyThatCannotBeMade) {
  tov_test::in_child([] {
    tov_test::failing_sem.key = EACCES;
    tov_test::failing_sem.key_failures = 1;
    EXPECT_EQ(said_by(tov_sem_init, "]Get sem file key failed: Permission denied."), -1);
    EXPECT_EQ(tov_sem_init(), 0);
  });
  tov_test::in_child([] {
    tov_test::failing_sem.key = EACCES;
    tov_test::failing_sem.key_failures = 1;
    EXPECT_EQ(said_by(tov_get_sem_id, "]Get sem file key failed: Permission denied."), -1);
    EXPECT_TRUE(tov_test::fake_sleep.slept_us.empty()) << "only a lack of memory passes";
    EXPECT_EQ(tov_get_sem_id(), existing_set());
  });
}

TEST_F(TovXtachSem, LackOfMemoryForTheKeyIsWaitedFor) {
  tov_test::in_child([] { ASSERT_EQ(tov_sem_init(), 0); });
  tov_test::in_child([] {
    tov_test::failing_sem.key = ENOMEM;
    tov_test::failing_sem.key_failures = 3;
    const int id = tov_get_sem_id();
    EXPECT_EQ(tov_test::fake_sleep.slept_us,
              (std::vector<int64_t>{1'000'000, 1'000'000, 1'000'000}));
    EXPECT_EQ(id, existing_set());
  });
  // At the creation it is a failure like any other.
  tov_test::in_child([] {
    tov_test::failing_sem.key = ENOMEM;
    tov_test::failing_sem.key_failures = 1;
    EXPECT_EQ(said_by(tov_sem_init, "]Get sem file key failed: Cannot allocate memory."), -1);
    EXPECT_TRUE(tov_test::fake_sleep.slept_us.empty());
  });
}

TEST_F(TovXtachSem, KeyFileOfAnotherUserServes) {
  // In a sticky directory the kernel may refuse O_CREAT on it even to root.
  ASSERT_EQ(system("touch /tmp/.tov_semphore_path && chmod 1777 /tmp"), 0);
  ASSERT_EQ(chown(KEY_FILE, NOBODY, NOBODY), 0);
  tov_test::in_child([] { EXPECT_EQ(tov_sem_init(), 0); });
}

TEST_F(TovXtachSem, OtherUsersReadButDoNotRaise) {
  tov_test::in_child([] { EXPECT_EQ(tov_sem_init(), 0); });
  ASSERT_EQ(semctl(existing_set(), 0, SETVAL, 2), 0);
  tov_test::in_child([] {
    ASSERT_EQ(setuid(NOBODY), 0);
    EXPECT_EQ(tov_get_semval(), 2);
    sembuf raise{0, 1, 0};
    EXPECT_EQ(semop(tov_get_sem_id(), &raise, 1), -1);
  });
}
