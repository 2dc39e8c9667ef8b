// semaphores_test.cpp - the semaphores that processes share: who creates them, who frees them, and what
// befalls those who wait. The set of the debug log stands for both; the library makes it when the flags are
// first read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <memory>
#include <vector>

#include "host.h"
#include "hosts.h"
#include "support/child.h"
#include "support/log_capture.h"
#include "trelm_core.h"

namespace {

using namespace trelm::test;
using ::testing::ElementsAre;

constexpr key_t kDebugKey = 883;
constexpr int kNone = -1;

int value(int set) { return semctl(set, 0, GETVAL); }
bool has_waiter(int set) { return semctl(set, 0, GETNCNT) == 1; }

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

TEST_F(Semaphores, AreSetsOfOneThatBeginFree) {
    EXPECT_EQ(trelm_dbg_semkey, 883);
    EXPECT_EQ(trelm_db_semkey, 812);
    EXPECT_EQ(trelm_dbg_sem_id, kNone);
    EXPECT_EQ(trelm_db_sem_id, kNone);
    const int set = get_set();
    semid_ds status{};
    ASSERT_EQ(semctl(set, 0, IPC_STAT, &status), 0);
    EXPECT_EQ(status.sem_nsems, 1U);
    EXPECT_EQ(status.sem_perm.mode & 0777, 0644);
    EXPECT_EQ(value(set), 1);
    EXPECT_EQ(trelm_sem_wait(set), 0);
    EXPECT_EQ(value(set), 0);
    EXPECT_EQ(get_set(), set);  // a set that is held stays held
    EXPECT_EQ(value(set), 0);
    EXPECT_EQ(trelm_sem_signal(set), 0);
    EXPECT_EQ(value(set), 1);
}

TEST_F(Semaphores, WarnOfFailuresButNotOfTheLogsOwn) {
    struct {
        uint32_t flags;
        size_t lines;
    } const cases[] = {{kErrorLines, 2}, {2, 0}, {kSilent, 0}};
    const int gone = semget(IPC_PRIVATE, 1, 0600);
    semctl(gone, 0, IPC_RMID);
    for (const auto& [flags, lines] : cases) {
        set_debug_flags(flags);
        EXPECT_EQ(trelm_sem_wait(gone), -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(trelm_sem_signal(gone), -1);
        EXPECT_EQ(errno, EINVAL);
        const std::vector<std::string> written = log.take();
        ASSERT_EQ(written.size(), lines);
        if (lines == 0) continue;
        EXPECT_THAT(
            written,
            ElementsAre("trelm_sem_wait:libtrelm: WARNING - semaphore wait operation failed. errno=16h",
                        "trelm_sem_signal:libtrelm: WARNING - semaphore signal operation failed. errno=16h"));
    }
    set_debug_flags(kErrorLines);
    trelm_dbg_sem_id = gone;
    EXPECT_EQ(trelm_sem_wait(gone), -1);
    EXPECT_EQ(log.take_text(), "");
}

TEST_F(Semaphores, OfOthersUnderTheSameKeyAreRefusedAndLeftAlone) {
    const int foreign = semget(kDebugKey, 3, IPC_CREAT | IPC_EXCL | 0644);
    ASSERT_GE(foreign, 0);
    semctl(foreign, 0, SETVAL, 5);
    EXPECT_EQ(get_set(), kNone);
    EXPECT_EQ(semget(kDebugKey, 0, 0), foreign);
    EXPECT_EQ(value(foreign), 5);
    semctl(foreign, 0, IPC_RMID);
    // One that would let several in is set right.
    const int surplus = semget(kDebugKey, 1, IPC_CREAT | IPC_EXCL | 0644);
    semctl(surplus, 0, SETVAL, 5);
    EXPECT_EQ(get_set(), surplus);
    EXPECT_EQ(value(surplus), 1);
}

// What processes that are inside at once would show, in memory that all see.
struct Shared {
    std::atomic<int> inside{0};
    std::atomic<int> collisions{0};
};

// Gets the set along with others and uses it as a lock. Says which set it was.
int compete(Gate& gate, Shared* shared, Channel& parent) {
    gate.pass();
    const int set = get_set();
    for (int i = 0; i < 5; ++i) {
        if (trelm_sem_wait(set) != 0) return 1;
        if (shared->inside.fetch_add(1) != 0) ++shared->collisions;
        nap();
        shared->inside.fetch_sub(1);
        if (trelm_sem_signal(set) != 0) return 2;
    }
    parent.send({reinterpret_cast<const char*>(&set), sizeof set});
    return 0;
}

// Processes that all get the set at the same moment use the same one and never get in together.
void expect_one_lock_for_all(int processes) {
    Gate gate;
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* const shared = new (memory) Shared;
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < processes; ++i) {
        children.push_back(
            std::make_unique<Child>([&](Channel& parent) { return compete(gate, shared, parent); }));
    }
    gate.open();
    for (const auto& child : children) {
        const std::string set = child->receive_all();
        EXPECT_EQ(child->wait(), 0);
        ASSERT_EQ(set.size(), sizeof(int));
        EXPECT_EQ(*reinterpret_cast<const int*>(set.data()), semget(kDebugKey, 0, 0));
    }
    EXPECT_EQ(shared->collisions, 0);
    munmap(memory, sizeof(Shared));
    EXPECT_EQ(value(semget(kDebugKey, 0, 0)), 1);
}

TEST_F(Semaphores, AreFreedOnceHoweverManyComeAtOnce) {
    for (int round = 0; round < 13 && !HasFailure(); ++round) {
        const bool creator_died = round < 3;  // before it freed the set
        const int abandoned = creator_died ? semget(kDebugKey, 1, IPC_CREAT | IPC_EXCL | 0644) : kNone;
        expect_one_lock_for_all(8);
        const int set = semget(kDebugKey, 0, 0);
        if (creator_died) {
            EXPECT_EQ(set, abandoned);
        }
        semctl(set, 0, IPC_RMID);
    }
}

TEST_F(Semaphores, ComeFreeWhereAHolderIsKilledAndEndTheWaitingWhereTheyAreRemoved) {
    const int set = get_set();
    Child holder([&](Channel& parent) {
        trelm_sem_wait(set);
        parent.send("h");
        return (pause(), 0);
    });
    ASSERT_EQ(holder.receive(1), "h");
    Child waiter([&] { return trelm_sem_wait(set); });
    EXPECT_TRUE(eventually([&] { return has_waiter(set); }));
    holder.kill_and_wait();
    EXPECT_EQ(waiter.wait(), 0);
    EXPECT_EQ(value(set), 1);  // the waiter ended while it held it, too
    trelm_sem_wait(set);
    Child late([&] { return trelm_sem_wait(set) == -1 && errno == EIDRM ? 0 : 1; });
    ASSERT_TRUE(eventually([&] { return has_waiter(set); }));
    semctl(set, 0, IPC_RMID);
    EXPECT_EQ(late.wait(), 0);
}

TEST_F(Semaphores, AreStillWaitedForAfterASignal) {
    const int set = get_set();
    trelm_sem_wait(set);
    Child waiter([&](Channel& parent) {
        static Channel* told;
        told = &parent;
        struct sigaction action {};
        action.sa_handler = [](int) { told->send("s"); };
        sigaction(SIGUSR1, &action, nullptr);  // without SA_RESTART
        const int result = trelm_sem_wait(set);
        parent.send(result == 0 && value(set) == 0 ? "in" : "failed");
        return 0;
    });
    ASSERT_TRUE(eventually([&] { return has_waiter(set); }));
    kill(waiter.id(), SIGUSR1);
    EXPECT_EQ(waiter.receive(1), "s");
    EXPECT_TRUE(eventually([&] { return has_waiter(set); }));
    trelm_sem_signal(set);
    EXPECT_EQ(waiter.receive_all(), "in");
    EXPECT_EQ(waiter.wait(), 0);
    EXPECT_EQ(log.take_text(), "");
}

}  // namespace
