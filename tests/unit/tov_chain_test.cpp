// The registries: order in a bucket, removal, the lock, and the look-ups in list files.
#include "tov_chain.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "caught_diagnostics.h"
#include "private_root.h"
#include "tov_sys_alive.h"

namespace {

// The shared area lives at a fixed name, so everything runs in a private root.
class private_root_env : public testing::Environment {
 public:
  void SetUp() override { tov_test::enter_private_root(); }
};
const auto *const env = testing::AddGlobalTestEnvironment(new private_root_env);

class TovChain : public testing::Test {
 protected:
  void SetUp() override {
    for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains, &tov_chains_delay})
      tov_init_chains(chains);
  }
  void TearDown() override {
    for (tov_chains_t *chains : {&tov_chains, &tov_alive_chains, &tov_chains_delay})
      tov_destroy_chains(chains);
  }

  static tov_pid_t *add(tov_chains_t &chains, pid_t pid, pid_t ppid = 0) {
    tov_pid_t *record = tov_chain_new_record();
    record->pid = pid;
    record->ppid = ppid;
    tov_chains_guard_t guard(chains);
    tov_chain_insert(&chains, record);
    return record;
  }

  static std::vector<pid_t> all_pids(tov_chains_t &chains) {
    std::vector<pid_t> pids;
    tov_chains_guard_t guard(chains);
    tov_chain_for_each(&chains, [&pids](tov_pid_t &record) {
      pids.push_back(record.pid);
      return true;
    });
    return pids;
  }
};

// Another id in the same bucket as `pid`.
pid_t neighbour_of(pid_t pid) {
  pid_t other = pid + 1;
  while (pidhash(other) != pidhash(pid))
    other++;
  return other;
}

}  // namespace

// ---- hash and lists ------------------------------------------------------------------------

TEST(Pidhash, UpperEightBitsOfTheProduct) {
  EXPECT_EQ(pidhash(0), 0u);
  EXPECT_EQ(pidhash(1), 0x9Eu);
  EXPECT_EQ(pidhash(2), (2u * 0x9E370001u) >> 24);
  EXPECT_EQ(pidhash(INT_MAX), (0x7FFFFFFFu * 0x9E370001u) >> 24);
  EXPECT_EQ(pidhash(-1), (0xFFFFFFFFu * 0x9E370001u) >> 24);
  EXPECT_EQ(pidhash(INT_MIN), (0x80000000u * 0x9E370001u) >> 24);
}

TEST(TovHlist, RemovedNodesCarryPoison) {
  tov_hlist_head_s head{};
  tov_hlist_node_s first{};
  tov_hlist_node_s second{};
  tov_hlist_add_head(&first, &head);
  tov_hlist_add_head(&second, &head);
  ASSERT_EQ(head.first, &second);
  ASSERT_EQ(second.next, &first);

  tov_hlist_del(&second);
  EXPECT_EQ(head.first, &first);
  EXPECT_EQ(first.pprev, &head.first);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(second.next), 0x100100u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(second.pprev), 0x200200u);
  tov_hlist_del(&first);
  EXPECT_EQ(head.first, nullptr);
}

TEST(TovHlist, RemovalFromTheMiddleJoinsTheNeighbours) {
  tov_hlist_head_s head{};
  tov_hlist_node_s nodes[3] = {};
  for (auto &node : nodes)
    tov_hlist_add_head(&node, &head);
  tov_hlist_del(&nodes[1]);
  EXPECT_EQ(nodes[2].next, &nodes[0]);
  EXPECT_EQ(nodes[0].pprev, &nodes[2].next);
  EXPECT_EQ(nodes[0].next, nullptr);
}

TEST(TovHlist, UnlinkedNodeIsOnlyPoisoned) {
  tov_hlist_node_s node{};
  tov_hlist_init(&node);
  EXPECT_EQ(node.next, nullptr);
  EXPECT_EQ(node.pprev, nullptr);
  tov_hlist_del(&node);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(node.next), 0x100100u);
}

TEST(TovList, NodeOfItsOwnAndPoison) {
  tov_list_head_s node{};
  tov_list_init(&node);
  EXPECT_EQ(node.next, &node);
  EXPECT_EQ(node.prev, &node);
  tov_list_del(&node);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(node.next), 0x100100u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(node.prev), 0x200200u);
}

TEST(TovList, RemovalJoinsTheNeighbours) {
  tov_list_head_s a{};
  tov_list_head_s b{};
  a = {&b, &b};
  b = {&a, &a};
  tov_list_del(&b);
  EXPECT_EQ(a.next, &a);
  EXPECT_EQ(a.prev, &a);
}

// ---- records -------------------------------------------------------------------------------

TEST_F(TovChain, NewRecordIsZeroed) {
  tov_pid_t *record = tov_chain_new_record();
  ASSERT_NE(record, nullptr);
  const std::vector<char> zeroes(sizeof *record, 0);
  EXPECT_EQ(memcmp(record, zeroes.data(), sizeof *record), 0);
  free(record);
}

TEST_F(TovChain, InsertedRecordStandsInItsBucket) {
  tov_pid_t *record = add(tov_chains, 4711);
  EXPECT_EQ(tov_chains.node_num, 1);
  EXPECT_EQ(tov_chains.pidchain[pidhash(4711)].first, &record->pidlink);
  EXPECT_EQ(record->pidlist.next, &record->pidlist);
  EXPECT_EQ(__tov_find_pid(&tov_chains, 4711), record);
  EXPECT_EQ(__tov_find_pid(&tov_chains, neighbour_of(4711)), nullptr);
}

TEST_F(TovChain, FindGivesTheNewestAndOldestNodeTheOldest) {
  tov_pid_t *oldest = add(tov_chains, 100);
  add(tov_chains, neighbour_of(100));
  tov_pid_t *newest = add(tov_chains, 100);
  EXPECT_EQ(__tov_find_pid(&tov_chains, 100), newest);
  EXPECT_EQ(tov_get_oldest_node(100), oldest);
  EXPECT_EQ(tov_get_oldest_node(neighbour_of(neighbour_of(100))), nullptr);
}

TEST_F(TovChain, OldestNodeLooksAtTheMainRegistryOnly) {
  add(tov_chains_delay, 100);
  EXPECT_EQ(tov_get_oldest_node(100), nullptr);
}

TEST_F(TovChain, DeletionByIdRemovesAllOfThatIdAndSaysSo) {
  add(tov_chains, 100);
  add(tov_chains, neighbour_of(100));
  add(tov_chains, 100);
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_PUB, [] {
    tov_chains_guard_t guard(tov_chains);
    __tov_del_pid(&tov_chains, 100);
  });
  EXPECT_EQ(tov_chains.node_num, 1);
  EXPECT_EQ(all_pids(tov_chains), std::vector<pid_t>{neighbour_of(100)});
  const size_t first = said.find("]__tov_del_pid del pid 100");
  ASSERT_NE(first, std::string::npos) << said;
  EXPECT_NE(said.find("]__tov_del_pid del pid 100", first + 1), std::string::npos) << said;
}

TEST_F(TovChain, RekeyMovesTheRecordToTheHeadOfItsNewBucket) {
  tov_pid_t *moved = add(tov_chains, 100);
  add(tov_chains, neighbour_of(200));
  {
    tov_chains_guard_t guard(tov_chains);
    tov_chain_rekey(&tov_chains, moved, 200);
  }
  EXPECT_EQ(moved->pid, 200);
  EXPECT_EQ(tov_chains.pidchain[pidhash(200)].first, &moved->pidlink);
  EXPECT_EQ(__tov_find_pid(&tov_chains, 100), nullptr);
  EXPECT_EQ(tov_chains.node_num, 2);
}

TEST_F(TovChain, IdsThatNoProcessHasCanBeKept) {
  add(tov_chains, -1);  // what a failed start leaves
  add(tov_chains, 0);
  EXPECT_NE(__tov_find_pid(&tov_chains, -1), nullptr);
  EXPECT_NE(__tov_find_pid(&tov_chains, 0), nullptr);
}

TEST_F(TovChain, WalkMayRemoveTheRecordItStandsOn) {
  for (pid_t pid = 1; pid <= 1000; pid++)
    add(tov_chains, pid);
  {
    tov_chains_guard_t guard(tov_chains);
    tov_chain_for_each(&tov_chains, [](tov_pid_t &record) {
      if (record.pid % 2 == 0) tov_chain_remove(&tov_chains, &record);
      return true;
    });
  }
  EXPECT_EQ(tov_chains.node_num, 500);
  for (pid_t pid : all_pids(tov_chains))
    EXPECT_EQ(pid % 2, 1);
}

TEST_F(TovChain, WalkEndsWhenTheVisitorHasEnough) {
  for (pid_t pid = 1; pid <= 10; pid++)
    add(tov_chains, pid);
  int visited = 0;
  tov_chain_for_each(&tov_chains, [&visited](tov_pid_t &) { return ++visited < 3; });
  EXPECT_EQ(visited, 3);
}

// ---- removal by parent ---------------------------------------------------------------------

TEST_F(TovChain, ChildrenOfARecordGoAndStrangersStay) {
  tov_pid_t *parent = add(tov_chains, 500, 1);
  for (pid_t pid = 1000; pid < 1010; pid++)
    add(tov_chains, pid, 500);
  add(tov_chains, 2000, 501);
  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_PUB, [&] { tov_del_node_chain_safe(parent, &tov_chains); });
  EXPECT_EQ(tov_chains.node_num, 2);
  EXPECT_NE(__tov_find_pid(&tov_chains, 500), nullptr);
  EXPECT_NE(__tov_find_pid(&tov_chains, 2000), nullptr);
  EXPECT_NE(said.find("]tov_del_node_chain: delete pid (1003) ppid (500) from chain!"),
            std::string::npos)
      << said;
}

TEST_F(TovChain, RecordThatIsItsOwnParentGoesWithItsChildren) {
  tov_pid_t *self = add(tov_chains, 500, 500);
  for (pid_t pid = 1000; pid < 1300; pid++)
    add(tov_chains, pid, 500);
  tov_del_node_chain_safe(self, &tov_chains);
  EXPECT_EQ(tov_chains.node_num, 0);
}

TEST_F(TovChain, RecordWithoutChildrenRemovesNothing) {
  tov_pid_t *parent = add(tov_chains, 500, 1);
  add(tov_chains, 1000, 499);
  tov_del_node_chain_safe(parent, &tov_chains);
  EXPECT_EQ(tov_chains.node_num, 2);
}

TEST_F(TovChain, NullArgumentsAreNamedAndHarmless) {
  tov_pid_t *record = add(tov_chains, 500);
  const std::string said = tov_test::caught_diagnostics(TOV_MODULE_PUB, [&] {
    tov_del_node_chain(nullptr, &tov_chains);
    tov_del_node_chain(record, nullptr);
    tov_del_node_chain_safe(nullptr, &tov_chains);
    tov_del_node_chain_safe(record, nullptr);
  });
  const std::string line = "]tov_del_node_chain: Invalid argument";
  size_t count = 0;
  for (size_t at = said.find(line); at != std::string::npos; at = said.find(line, at + 1))
    count++;
  EXPECT_EQ(count, 4u) << said;
  EXPECT_EQ(tov_chains.node_num, 1);
}

TEST_F(TovChain, RemovedThreadsLoseTheirSlotInTheSharedArea) {
  ASSERT_EQ(tov_sys_init_alive_info(true), 0);
  for (pid_t tid : {1000, 163839})
    ASSERT_EQ(tov_sys_reg_alive_info(tid), 0);
  tov_pid_t *process = add(tov_chains, 500);
  for (pid_t tid : {1000, 163839, 163840, 200000})
    add(tov_alive_chains, tid, 500);

  const std::string said = tov_test::caught_diagnostics(
      TOV_MODULE_ALIVE, [&] { tov_del_node_chain_safe(process, &tov_alive_chains); });
  EXPECT_EQ(tov_alive_chains.node_num, 0);
  EXPECT_FALSE(tov_sys_isreg_alive_info(1000));
  EXPECT_FALSE(tov_sys_isreg_alive_info(163839));
  EXPECT_EQ(said, "");  // large ids have no slot, so none was asked for
}

TEST_F(TovChain, OtherRegistriesLeaveTheSlotsAlone) {
  ASSERT_EQ(tov_sys_init_alive_info(true), 0);
  ASSERT_EQ(tov_sys_reg_alive_info(1000), 0);
  tov_pid_t *process = add(tov_chains_delay, 500);
  add(tov_chains, 1000, 500);
  tov_del_node_chain_safe(process, &tov_chains);
  EXPECT_TRUE(tov_sys_isreg_alive_info(1000));
  tov_sys_unreg_alive_info(1000);
}

TEST_F(TovChain, DestroyEmptiesReleasesSlotsAndKeepsTheLock) {
  ASSERT_EQ(tov_sys_init_alive_info(true), 0);
  ASSERT_EQ(tov_sys_reg_alive_info(1000), 0);
  add(tov_alive_chains, 1000, 500);
  for (pid_t pid = 1; pid <= 300; pid++)
    add(tov_chains, pid);
  tov_destroy_chains(&tov_alive_chains);
  tov_destroy_chains(&tov_chains);
  EXPECT_FALSE(tov_sys_isreg_alive_info(1000));
  EXPECT_EQ(tov_chains.node_num, 0);
  EXPECT_TRUE(all_pids(tov_chains).empty());
  add(tov_chains, 7);  // a detached thread that comes late
  EXPECT_EQ(tov_chains.node_num, 1);
}

// ---- the lock ------------------------------------------------------------------------------

TEST_F(TovChain, LockIsRecursiveAndInheritsPriority) {
  tov_chains_guard_t outer(tov_chains);
  {
    tov_chains_guard_t inner(tov_chains);
    add(tov_chains, 1);
  }
  std::thread other([] { EXPECT_EQ(pthread_mutex_trylock(&tov_chains.lock), EBUSY); });
  other.join();
  outer.release();
  std::thread third([] {
    EXPECT_EQ(pthread_mutex_trylock(&tov_chains.lock), 0);
    pthread_mutex_unlock(&tov_chains.lock);
  });
  third.join();
  outer.release();  // a second release does nothing
  EXPECT_NE(tov_chains.lock.__data.__kind & 0x20, 0) << "PTHREAD_MUTEX_PRIO_INHERIT_NP";
}

TEST_F(TovChain, ThreadsTakeTurns) {
  constexpr int THREADS = 4;
  constexpr int ROUNDS = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; t++)
    threads.emplace_back([t] {
      for (int i = 0; i < ROUNDS; i++) {
        const pid_t pid = t * ROUNDS + i + 1;
        add(tov_chains, pid);
        tov_chains_guard_t guard(tov_chains);
        EXPECT_NE(__tov_find_pid(&tov_chains, pid), nullptr);
        if (i % 2 == 0) __tov_del_pid(&tov_chains, pid);
      }
    });
  for (auto &thread : threads)
    thread.join();
  EXPECT_EQ(tov_chains.node_num, THREADS * ROUNDS / 2);
}

TEST_F(TovChain, AllowedOrdersPass) {
  tov_chains_guard_t outer(tov_chains);
  {
    tov_chains_guard_t alive(tov_alive_chains);
    tov_chains_guard_t again(tov_chains);  // held already
    tov_chains_guard_t once_more(tov_alive_chains);
  }
  tov_chains_guard_t delay(tov_chains_delay);
  tov_chains_t own{};
  tov_init_chains(&own);
  tov_chains_guard_t no_part_in_the_order(own);
}

#ifndef NDEBUG
using TovChainDeathTest = TovChain;

TEST_F(TovChainDeathTest, WrongOrderIsFoundInDebugBuilds) {
  for (tov_chains_t *first : {&tov_alive_chains, &tov_chains_delay})
    EXPECT_DEATH(
        {
          tov_chains_guard_t inner(*first);
          tov_chains_guard_t outer(tov_chains);
        },
        "tov_chains first");
  EXPECT_DEATH(
      {
        tov_chains_guard_t alive(tov_alive_chains);
        tov_chains_guard_t delay(tov_chains_delay);
      },
      "tov_chains first");
}
#endif

// ---- look-ups ------------------------------------------------------------------------------

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

TEST(PidToProc, ShortBufferIsFilledWithoutATerminator) {
  char buf[4] = {'x', 'x', 'x', 'x'};
  EXPECT_EQ(pid_to_proc(getpid(), buf, 3), 1);
  EXPECT_EQ(std::string(buf, 4), own_exe().substr(0, 3) + "x");
}

TEST(PidToProc, FailsForIdsThatNobodyHas) {
  char buf[16];
  for (pid_t pid : {0, -1, INT_MAX}) {
    memset(buf, 'x', sizeof buf);
    EXPECT_EQ(pid_to_proc(pid, buf, sizeof buf), 0);
    EXPECT_STREQ(buf, "");
  }
  buf[0] = 'x';
  EXPECT_EQ(pid_to_proc(getpid(), buf, 0), 0);
  EXPECT_EQ(buf[0], 'x');
}

TEST(PidToProc, FailsForAZombie) {
  const pid_t child = fork();
  if (child == 0) _exit(0);
  siginfo_t info{};
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
  char buf[16] = "x";
  EXPECT_EQ(pid_to_proc(child, buf, sizeof buf), 0);
  waitpid(child, nullptr, 0);
}

TEST(TovProcInTovdb, LastWordOfTheLineComesWithItsLineEnd) {
  write_list("/opt/a TOV_RESTART\n/opt/b -x TOV_SHELL_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").word, "TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/b").word, "TOV_SHELL_RESTART\n");
  EXPECT_EQ(look_up("/opt/b").found, 1);
  EXPECT_EQ(look_up("/opt/c").found, 0);
  EXPECT_EQ(look_up("/opt/c").word, "");
}

TEST(TovProcInTovdb, LastLineMayLackItsEnd) {
  write_list("/opt/a TOV_RESTART");
  EXPECT_EQ(look_up("/opt/a").word, "TOV_RESTART");
}

TEST(TovProcInTovdb, PartOfALongerPathMatches) {
  write_list("/usr/opt/abc TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").found, 1);
  EXPECT_EQ(look_up("RESTART").found, 1);
}

TEST(TovProcInTovdb, FirstMatchDecidesEvenWithoutABlank) {
  write_list("/opt/abc\n/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").found, 0);
  EXPECT_EQ(look_up("/opt/a").word, "");
  write_list("/opt/a\tTOV_RESTART\n");  // a tab is no blank
  EXPECT_EQ(look_up("/opt/a").found, 0);
}

TEST(TovProcInTovdb, BlankAtTheEndOfTheLineGivesItsLineEndOnly) {
  write_list("/opt/a TOV_RESTART \n");
  EXPECT_EQ(look_up("/opt/a").found, 1);
  EXPECT_EQ(look_up("/opt/a").word, "\n");
}

TEST(TovProcInTovdb, EmptyNameMatchesNothing) {
  write_list("/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("").found, 0);
  EXPECT_EQ(look_up("").word, "");
}

TEST(TovProcInTovdb, WordIsCutToTheBuffer) {
  write_list("/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a", 5).word, "TOV_");
  EXPECT_EQ(look_up("/opt/a", 1).word, "");
  EXPECT_EQ(look_up("/opt/a", 1).found, 1);
  char untouched = 'x';
  EXPECT_EQ(tov_proc_in_tovdb(LIST, "/opt/a", &untouched, 0), 0);
  EXPECT_EQ(untouched, 'x');
}

TEST(TovProcInTovdb, UnreadableListLeavesTheBufferAlone) {
  unlink(LIST);
  EXPECT_EQ(look_up("/opt/a", 3).word, "xxx");
  EXPECT_EQ(look_up("/opt/a", 3).found, 0);
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

TEST(TovProcInTovdb, LinkToAListIsFollowed) {
  std::ofstream("/tmp/real_list") << "/opt/a TOV_RESTART\n";
  unlink(LIST);
  ASSERT_EQ(symlink("/tmp/real_list", LIST), 0);
  EXPECT_EQ(look_up("/opt/a").found, 1);
  unlink(LIST);
}

TEST(TovProcInTovdb, LongLinesAreReadInPiecesOf1023Bytes) {
  const std::string pad(1000, 'p');
  // 1000 + 7 + 16 = 1023 bytes: all in the first piece.
  write_list(pad + "/opt/a " + std::string(16, 'w') + "second piece\n");
  EXPECT_EQ(look_up("/opt/a").word, std::string(16, 'w'));
  EXPECT_EQ(look_up("second").word, "piece\n");
  // The name lies across the border of two pieces.
  write_list(std::string(1020, 'p') + "/opt/a TOV_RESTART\n");
  EXPECT_EQ(look_up("/opt/a").found, 0);
  EXPECT_EQ(look_up("t/a").word, "TOV_RESTART\n");
}

TEST(TovProcInTovdb, BytesBehindANulAreNotSeen) {
  write_list(std::string("/opt/a\0 /opt/b X\n/opt/c Y\n", 26));
  EXPECT_EQ(look_up("/opt/b").found, 0);
  EXPECT_EQ(look_up("/opt/a").found, 0);
  EXPECT_EQ(look_up("/opt/c").word, "Y\n");
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
