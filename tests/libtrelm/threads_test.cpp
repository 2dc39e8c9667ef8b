// The library with several threads: who waits for whom, and the effects of cancellation, signals and forks.
// Drivers wait at a command that the test chooses.
#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

#include "support/child.h"
#include "support/leaks.h"
#include "support/libc_replacements.h"
#include "support/loaded_host.h"
#include "support/programs.h"

namespace {

// The action of the driver when a SCSI command arrives, before it answers.
std::function<void()> in_driver;

}  // namespace

REPLACES_LIBC(int, vmk_MgmtUserCallbackInvokeInt,
              (uint64_t handle, uint64_t instance, uint64_t callback, uint32_t count, void* payload)) {
    if (callback == 23 && in_driver) in_driver();
    return NEXT_OF(vmk_MgmtUserCallbackInvokeInt)(handle, instance, callback, count, payload);
}
REPLACES_LIBC(int, ioctl, (int fd, unsigned long request, void* argument)) {
    if (CALLED_BY_LIBRARY() && (request & 0xFF) == 8 && in_driver) in_driver();
    return NEXT_OF(ioctl)(fd, request, argument);
}

namespace {

using namespace trelm::test;
using hostsim::DriverKind;

uint32_t open_port(uint32_t instance) {
    uint32_t handle = 0;
    EXPECT_EQ(TRELM_OpenAdapter(instance, &handle), TRELM_STATUS_OK);
    return handle;
}
uint32_t send(uint32_t handle) {
    TRELM_SCSI_CMND ready{};
    ready.CDBLength = 6;
    return TRELM_SendScsiCommand(handle, 0, &ready, nullptr, nullptr);
}
uint32_t ask_stats(uint32_t handle) {
    TRELM_PORT_STATS stats;
    return TRELM_GetPortStats(handle, 0, &stats);
}
uint32_t ask_adapter(uint32_t handle) {
    TRELM_FCOE_INFO info{};
    return TRELM_GetFcoeInfo(handle, &info);
}
uint32_t count_ports() {
    uint32_t count = 0;
    return TRELM_GetPortCount(&count);
}

void load_anew() {
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
}

// A driver that holds SCSI commands until it is released.
class Waiting {
  public:
    Waiting() {
        in_driver = [this] {
            ++arrived_;
            go_on_.get_future().share().wait();
        };
    }
    ~Waiting() { in_driver = nullptr; }
    // Sends a command in a new thread, and returns when the driver has it.
    std::future<uint32_t> send_to(uint32_t handle) {
        auto sent = std::async(std::launch::async, send, handle);
        EXPECT_TRUE(eventually([this] { return arrived_ != 0; }));
        return sent;
    }
    void end() { go_on_.set_value(); }

  private:
    std::atomic<int> arrived_ = 0;
    std::promise<void> go_on_;
};

bool is_waiting(std::future<uint32_t>& call) {
    return call.wait_for(std::chrono::milliseconds(100)) == std::future_status::timeout;
}

class Threads : public OnEachDriver {
  protected:
    void SetUp() override { ASSERT_TRUE(find_library()); }
    const uint32_t handle = open_port(0), other = open_port(1);
};
TRELM_ON_EACH_DRIVER(Threads);

TEST_P(Threads, DoNotWaitForACallThatWaitsInADriver) {
    Waiting driver;
    auto sent = driver.send_to(handle);
    for (const uint32_t port : {handle, other}) {
        EXPECT_EQ(ask_stats(port), TRELM_STATUS_OK);
        EXPECT_EQ(ask_adapter(port), TRELM_STATUS_OK);
    }
    EXPECT_EQ(open_port(0), handle);
    EXPECT_EQ(TRELM_CloseAdapter(handle), TRELM_STATUS_OK) << "another open is left";
    EXPECT_EQ(TRELM_CloseAdapter(other), TRELM_STATUS_OK);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK) << "it is loaded";
    EXPECT_EQ(count_ports(), TRELM_STATUS_OK);
    driver.end();
    EXPECT_EQ(sent.get(), TRELM_STATUS_OK);
}

TEST_P(Threads, CloseANativePortAtOnceAndALegacyOneAfterItsCalls) {
    Waiting driver;
    auto sent = driver.send_to(handle);
    auto closed = std::async(std::launch::async, TRELM_CloseAdapter, handle);
    if (GetParam() == DriverKind::legacy) {
        EXPECT_TRUE(is_waiting(closed)) << "the driver has its descriptor";
        auto asked = std::async(std::launch::async, ask_stats, handle);
        EXPECT_TRUE(is_waiting(asked)) << "whether the close works is not known yet";
        EXPECT_EQ(ask_stats(other), TRELM_STATUS_OK);
        driver.end();
        EXPECT_EQ(asked.get(), TRELM_STATUS_FAILED);
    } else {
        EXPECT_EQ(closed.get(), TRELM_STATUS_OK);
        EXPECT_EQ(ask_stats(handle), TRELM_STATUS_FAILED);
        driver.end();
        closed = std::async(std::launch::deferred, [] { return TRELM_STATUS_OK; });
    }
    EXPECT_EQ(sent.get(), TRELM_STATUS_OK) << "it was sent before the close";
    EXPECT_EQ(closed.get(), TRELM_STATUS_OK);
}

TEST_P(Threads, WaitForAFreeThatWaitsForACall) {
    Waiting driver;
    auto sent = driver.send_to(handle);
    auto freed = std::async(std::launch::async, TRELM_FreeLibrary);
    EXPECT_TRUE(is_waiting(freed));
    auto counted = std::async(std::launch::async, count_ports);
    uint32_t reopened = 0;
    auto opened = std::async(std::launch::async, [&] { return TRELM_OpenAdapter(0, &reopened); });
    EXPECT_TRUE(is_waiting(counted));
    EXPECT_TRUE(is_waiting(opened));
    driver.end();
    EXPECT_EQ(sent.get(), TRELM_STATUS_OK);
    EXPECT_EQ(freed.get(), TRELM_STATUS_OK);
    EXPECT_EQ(counted.get(), TRELM_STATUS_FAILED);
    EXPECT_EQ(opened.get(), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    EXPECT_EQ(open_port(0), handle);
}

TEST_P(Threads, ThatAreCancelledOrEndInAHandlerLeaveNothingLocked) {
    std::atomic<pthread_t> victim = 0;
    in_driver = [&] {
        victim = pthread_self();
        for (int i = 0; i < 100; ++i) usleep(1000);  // a cancellation point
    };
    std::thread cancelled([&] {
        send(handle);
        victim = 0;
        for (;;) pause();
    });
    ASSERT_TRUE(eventually([&] { return victim != 0; }));
    pthread_cancel(victim);
    cancelled.join();
    EXPECT_EQ(victim, 0U) << "the function returned before";
    load_anew();
    const uint32_t reopened = open_port(0);

    signal(SIGUSR1, [](int) { pthread_exit(nullptr); });
    in_driver = [] { raise(SIGUSR1); };
    std::thread([&] {
        const LeaksAllowed until_it_ends;  // the handler ends its thread inside a call that holds memory
        send(reopened);
    }).join();
    in_driver = nullptr;
    EXPECT_EQ(ask_stats(reopened), TRELM_STATUS_OK);
    EXPECT_EQ(TRELM_CloseAdapter(reopened), TRELM_STATUS_OK);
    load_anew();
}

uint32_t interrupted_handle = 0;
std::array<uint32_t, 6> answers;

TEST_P(Threads, MayCallInASignalHandlerWhatDoesNotWaitForTheInterruptedCall) {
    interrupted_handle = handle;
    signal(SIGUSR1, [](int) {
        uint32_t reopened = 0;
        answers = {count_ports(),
                   ask_adapter(interrupted_handle),
                   TRELM_OpenAdapter(1, &reopened),
                   TRELM_CloseAdapter(reopened),
                   TRELM_CloseAdapter(interrupted_handle),
                   TRELM_FreeLibrary()};
    });
    in_driver = [] { raise(SIGUSR1); };
    EXPECT_EQ(send(handle), TRELM_STATUS_OK);
    in_driver = nullptr;
    const uint32_t closed = GetParam() == DriverKind::legacy ? TRELM_STATUS_FAILED : TRELM_STATUS_OK;
    EXPECT_THAT(answers, testing::ElementsAre(TRELM_STATUS_OK, TRELM_STATUS_OK, TRELM_STATUS_OK,
                                              TRELM_STATUS_OK, closed, TRELM_STATUS_FAILED));
    load_anew();
}

TEST_P(Threads, AreGoneInAForkedChild) {
    const auto use_and_free = [this] {
        EXPECT_EQ(ask_stats(other), TRELM_STATUS_OK);
        EXPECT_EQ(TRELM_CloseAdapter(handle), TRELM_STATUS_OK);
        load_anew();
        EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
        return 0;
    };
    Waiting driver;
    auto sent = driver.send_to(handle);
    EXPECT_EQ(in_child(use_and_free), 0) << "another thread is in a call";
    auto freed = std::async(std::launch::async, TRELM_FreeLibrary);
    EXPECT_TRUE(is_waiting(freed));
    EXPECT_EQ(in_child(use_and_free), 0) << "another thread is about to free the library";
    driver.end();
    EXPECT_EQ(sent.get() + freed.get(), TRELM_STATUS_OK);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
}

using Guests = Programs;

TEST_F(Guests, CallFromSixteenThreadsWhileTheHostFileIsEdited) {
    const std::string online = text_of(source_dir() + "/hostsim/hosts/lab.json");
    const std::string down = Pattern("\"link\": \"online\"").replaced_in(online, "\"link\": \"link_down\"");
    ASSERT_NE(online, down);
    write("host.json", online);
    const pid_t guest = start({kLauncher, "run", at("host.json"), "--", binary_dir() + "/bin/trelm-threads",
                               "--guest", "--threads", "16", "--seconds", "3"});
    for (int edit = 0; waitpid(guest, nullptr, WNOHANG | WNOWAIT) == 0; ++edit) {
        write("new.json", edit % 2 ? online : down);
        std::filesystem::rename(at("new.json"), at("host.json"));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    const ProgramResult outcome = finish(guest);
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_THAT(outcome.out, testing::ContainsRegex("16 threads, [1-9][0-9]* changes of links, 0 failures"));
}

}  // namespace
