// semaphores_test.cpp - the semaphores that processes share: what they are at first, and what befalls those
// who wait. The set of the debug log stands for both; the library makes it when the flags are first read.
// Crowds that come all at once are the soak's.
#include <sys/sem.h>

#include "support/child.h"
#include "support/log_capture.h"

namespace {

using namespace trelm::test;

constexpr key_t kDebugKey = 883;

int value(int set) { return semctl(set, 0, GETVAL); }
int waiters(int set) { return semctl(set, 0, GETNCNT); }

// The set that this process gets for the debug log.
int get_set() {
    trelm_dbg_sem_id = -1;
    set_debug_flags(kErrorLines);
    return trelm_dbg_sem_id;
}

class Semaphores : public ::testing::Test {
  protected:
    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kSilent};
};

TEST_F(Semaphores, AreSetsOfOneThatBeginFreeAndNobodyElses) {
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
    semctl(set, 0, SETVAL, 5);
    EXPECT_EQ(get_set(), set);
    EXPECT_EQ(value(set), 1) << "5 would let several in";
}

TEST_F(Semaphores, WarnOfFailuresButNotOfTheLogsOwn) {
    const int gone = semget(IPC_PRIVATE, 1, 0600);
    semctl(gone, 0, IPC_RMID);
    for (const uint32_t flags : {kSilent, kErrorLines}) {
        set_debug_flags(flags);
        EXPECT_EQ(trelm_sem_wait(gone), -1);
        EXPECT_EQ(trelm_sem_signal(gone), -1);
    }
    trelm_dbg_sem_id = gone;
    EXPECT_EQ(trelm_sem_wait(gone), -1);
    EXPECT_EQ(log.take_text(),
              "trelm_sem_wait:libtrelm: WARNING - semaphore wait operation failed. errno=16h\n"
              "trelm_sem_signal:libtrelm: WARNING - semaphore signal operation failed. errno=16h\n");
}

TEST_F(Semaphores, AreStillWaitedForAfterASignalAndComeFreeWhereAHolderIsKilled) {
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
