// semaphores_test.cpp - the semaphores that processes share: initial value, waiting, and recovery. Most cases
// use the set of the debug log, which is created when the flags are first read. The soak tests crowds of
// processes, the sweep releases that fail.
#include <sys/sem.h>

#include "support/child.h"
#include "support/libc_replacements.h"
#include "support/log_capture.h"
#include "trelm_mgmt.h"

static bool semctl_fails = false;  // as under a seccomp filter

REPLACES_LIBC(int, semctl, (int set, int number, int command, void* argument)) {
    if (!semctl_fails || !CALLED_BY_LIBRARY()) return NEXT_OF(semctl)(set, number, command, argument);
    errno = EPERM;
    return -1;
}

namespace {

using namespace trelm::test;

constexpr key_t kDatabaseKey = 812;
constexpr key_t kDebugKey = 883;
constexpr uid_t kNobody = 65534;

int value(int set) { return semctl(set, 0, GETVAL); }
int waiters(int set) { return semctl(set, 0, GETNCNT); }

// A set whose holder is dead.
int make_held(key_t key, int count, uid_t owner) {
    const int set = semget(key, count, IPC_CREAT | IPC_EXCL | 0666);
    sembuf take{0, -1, 0};
    semid_ds status{};
    semctl(set, 0, SETVAL, 1);
    semctl(set, 0, IPC_STAT, &status);
    status.sem_perm.uid = owner;
    return semop(set, &take, 1) + semctl(set, 0, IPC_SET, &status);
}

// The set of the debug log for this process.
int get_set() {
    trelm_dbg_sem_id = -1;
    set_debug_flags(kErrorLines);
    return trelm_dbg_sem_id;
}

class Semaphores : public ::testing::Test {
  protected:
    hostsim::Host host{hostsim::hosts::kron_ports(1)};
    LogCapture log{kSilent};
};

TEST_F(Semaphores, AreFreeSetsOfOneThatNobodyElseMade) {
    const int foreign = semget(kDebugKey, 3, IPC_CREAT | 0644);
    EXPECT_EQ(get_set(), -1) << "another program's";
    EXPECT_EQ(semctl(foreign, 0, IPC_RMID), 0);
    const int abandoned = semget(kDebugKey, 1, IPC_CREAT | 0644);
    EXPECT_EQ(get_set(), abandoned);
    EXPECT_EQ(value(abandoned), 1) << "its creator died before it freed it";
    semctl(abandoned, 0, IPC_RMID);

    const int set = get_set();
    semid_ds status{};
    semctl(set, 0, IPC_STAT, &status);
    EXPECT_EQ(set, semget(kDebugKey, 1, 0));
    EXPECT_EQ(status.sem_perm.mode & 0777, 0644);
    EXPECT_EQ(value(set), 1);
    EXPECT_EQ(trelm_sem_wait(set), 0);
    EXPECT_EQ(get_set(), set);
    EXPECT_EQ(value(set), 0) << "a set that is held stays held";
    EXPECT_EQ(trelm_sem_signal(set), 0);
    EXPECT_EQ(value(set), 1);
}

TEST_F(Semaphores, LoseASurplusOfReleases) {
    const int set = get_set();
    Child signaller([&] { return trelm_sem_signal(set) + pause(); });
    ASSERT_TRUE(eventually([&] { return value(set) == 2; }));
    EXPECT_EQ(get_set(), set);
    EXPECT_EQ(value(set), 1) << "2 would let two in";
    signaller.kill_and_wait();
    EXPECT_EQ(value(set), 1) << "what the signaller's end takes back must not be taken off twice";
}

// Anyone can create a set under these keys, take it and never release it.
TEST_F(Semaphores, OfOthersAreReplaced) {
    if (!can_be(kNobody)) GTEST_SKIP() << "this user cannot act for another";
    for (const auto& [creator, owner, count] :
         {std::tuple{kNobody, kNobody, 1}, {kNobody, kNobody, 3}, {kNobody, 0U, 1}, {0U, kNobody, 1}}) {
        for (const key_t key : {kDatabaseKey, kDebugKey}) {
            ASSERT_EQ(in_child([&, user = creator, to = owner, size = count] {
                          return setuid(user) != 0 || make_held(key, size, to) != 0;
                      }),
                      0);
        }
        EXPECT_EQ(in_child([] {
                      EXPECT_EQ(value(get_set()), 1);
                      trelm_dbg_print(nullptr, "a line", 0, 0, 1);
                      return TRELM_LoadLibrary() == TRELM_STATUS_OK ? 0 : 1;
                  }),
                  0);
        for (const key_t key : {kDatabaseKey, kDebugKey}) semctl(semget(key, 0, 0), 0, IPC_RMID);
    }
}

TEST_F(Semaphores, AreNotUsedIfTheirStateCannotBeRead) {
    ASSERT_TRUE(find_library());
    EXPECT_EQ(in_child([] {
                  semctl_fails = true;
                  for (int time = 0; time < 2;
                       ++time) {  // the second load finds the set that the first could not remove
                      EXPECT_EQ(get_set(), -1);
                      trelm_dbg_print(nullptr, "a line", 0, 0, 1);
                      EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
                  }
                  return 0;
              }),
              0);
    EXPECT_THAT(log.take(), testing::Contains("a line").Times(2));
}

TEST_F(Semaphores, AreWaitedForDespiteSignalsAndFreedWhenTheHolderIsKilled) {
    static auto& signals = make_common<std::atomic<int>>();
    const int set = get_set();
    Child holder([&] { return trelm_sem_wait(set) + pause(); });
    ASSERT_TRUE(eventually([&] { return value(set) == 0; }));
    Child waiter([&] {
        struct sigaction action {};  // without SA_RESTART
        action.sa_handler = [](int) { ++signals; };
        sigaction(SIGUSR1, &action, nullptr);
        return trelm_sem_wait(set) == 0 && value(set) == 0 ? 0 : 1;
    });
    Child writer([] { return trelm_dbg_print(nullptr, "a line of the log waits too", 0, 0, 1), 0; });
    ASSERT_TRUE(eventually([&] { return waiters(set) == 2; }));
    kill(waiter.id(), SIGUSR1);
    ASSERT_TRUE(eventually([&] { return signals == 1 && waiters(set) == 2; }));
    holder.kill_and_wait();
    EXPECT_EQ(waiter.wait() + writer.wait(), 0);
    EXPECT_EQ(value(set), 1) << "the waiter ended while it held it, too";
}

}  // namespace
