// What happens when memory runs out: each allocation of a call and of discovery fails in its turn, and the
// call says which, returns its code and works again afterwards.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>

#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TRELM_SANITIZED 1
#endif

namespace {

// The allocation that fails: after `passes` others of its size.
std::atomic<size_t> failing_size{0};
std::atomic<int> passes{0};

void fail_allocation(size_t size, int after = 0) {
    passes = after;
    failing_size = size;
}

}  // namespace

#ifndef TRELM_SANITIZED
// The library gets its memory through the dynamic linker, where a test's own function stands before libc's. A
// sanitizer wants that place for itself.
static bool fails(size_t size) {
    if (failing_size == 0 || size != failing_size || passes-- != 0) return false;
    failing_size = 0;
    errno = ENOMEM;
    return true;
}
extern "C" void* __libc_malloc(size_t size);
extern "C" void* malloc(size_t size) noexcept { return fails(size) ? nullptr : __libc_malloc(size); }
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* calloc(size_t count, size_t size) noexcept {
    return fails(count * size) ? nullptr : __libc_calloc(count, size);
}
#endif

namespace {

using namespace trelm::test;
using hostsim::DriverKind;
using hostsim::Operation;

constexpr size_t kBlock = 262444;  // a native SCSI command with its header

class Memory : public testing::TestWithParam<DriverKind> {
  protected:
    void SetUp() override {
#ifdef TRELM_SANITIZED
        GTEST_SKIP() << "a sanitizer's allocator cannot be made to fail";
#endif
    }
    bool native() const { return GetParam() != DriverKind::legacy; }
};
TRELM_ON_EACH_DRIVER(Memory);

TEST_P(Memory, EveryCallSaysWhatItCouldNotAllocate) {
    Loaded library(two_port_host(GetParam()));
    open_port();
    TRELM_PORT_STATS stats{};
    TRELM_VNPORT_INFO port{};
    TRELM_SCSI_CMND command{};
    std::array<TRELM_TGT_INFO, 2> targets{};
    std::array<TRELM_LUN_INFO, 2> luns{};
    const auto get_stats = [&] { return TRELM_GetPortStats(1, 0, &stats); };
    const auto get_port = [&] { return TRELM_GetVNPortInfo(1, 0, &port); };
    const auto send = [&] { return TRELM_SendScsiCommand(1, 0, &command, nullptr, nullptr); };
    const auto get_targets = [&] {
        uint32_t count = 2;
        TRELM_TGT_INFO* array = targets.data();
        return TRELM_GetTgtInfo(1, 0, &count, &array);
    };
    const auto get_luns = [&] {
        uint32_t count = 2;
        TRELM_LUN_INFO* array = luns.data();
        return TRELM_GetLunInfo(1, 0, 3, &count, &array);
    };
    struct Row {
        size_t size;
        int after;
        std::function<uint32_t()> call;
        std::string line;
    };
    const auto of_driver = [&](const char* kron, const char* pyx, const char* legacy) {
        return std::array{kron, pyx, legacy}.at(static_cast<size_t>(GetParam()));
    };
    const std::string own = transport(GetParam());
    std::vector<Row> rows{
        {512, 0, get_stats,
         fmt::format("TRELM_GetPortStats(1): {} alloc failed.", of_driver("nqstats", "nstats", "stats"))},
        {native() ? kBlock : 320, 0, send,
         fmt::format("TRELM_SendScsiCommand(1): {} alloc failed.", of_driver("nqcmd", "ncmd", "cmd"))},
        {16384, 0, get_targets, "TRELM_GetTgtInfo(1): pdata alloc failed."},
        {64, 0, get_targets,
         fmt::format("TRELM_GetTgtInfo(1): {} alloc failed.",
                     of_driver("native nqtgt_info", "native ntgt_info", "ioctl tgt_info"))},
        {16384, 0, get_luns, "TRELM_GetLunInfo(1): pdata alloc failed."}};
    if (native()) {
        rows.push_back({520, 0, get_stats, own + "get_port_stats(1): pstats_cb alloc failed."});
        rows.push_back({520, 0, get_port, own + "get_port_info(1): port_info_cb alloc failed."});
        rows.push_back({72, 0, get_port, own + "get_fcf_info(1): pfcf_cb alloc failed."});
        rows.push_back({72, 0, get_targets, own + "get_tgt_info(1): ptgt_cb alloc failed."});
        rows.insert(rows.begin(), {kBlock, 1, send, own + "send_scsi_cmd(1): pcmd_cb alloc failed."});
    }
    LogCapture log(kErrorLines);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        TRELM_FreeLibrary();  // with what is kept for the next command
        TRELM_LoadLibrary();
        open_port();
        log.take();
        fail_allocation(row.size, row.after);
        EXPECT_EQ(row.call(), TRELM_STATUS_NO_MEMORY);
        EXPECT_EQ(failing_size, 0U) << "this was never allocated";
        const Lines lines = log.take();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines[0], row.line);
        if (row.line.starts_with(own)) {
            EXPECT_THAT(lines.at(1), testing::HasSubstr(" failed, stat=10 errno="));
        }
        EXPECT_EQ(row.call(), TRELM_STATUS_OK);
    }
}

TEST_P(Memory, ADiscoveryThatRunsOutReleasesTheWholeRegistry) {
    struct Row {
        size_t size;
        const char* text;
    };
    const std::string name = transport(GetParam()) + "find_all_instances";
    for (const Row& row :
         {Row{sizeof(trelm_priv_db), native() ? "inst=10 mem alloc failed" : "inst=Ah mem alloc failed"},
          {sizeof(trelm_hw_info), "inst=Ah hw info mem alloc failed"}}) {
        const hostsim::Host host(hostsim::hosts::ports(GetParam(), 12));
        LogCapture log(kErrorLines);
        fail_allocation(row.size, 10);
        EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
        EXPECT_EQ(trelm_priv_database, nullptr);
        EXPECT_EQ(trelm_phy_info, nullptr);
        EXPECT_THAT(log.take(), testing::Contains(fmt::format("{}: {}, exiting", name, row.text)));
        EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
        EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    }
}

// What other drivers have found goes too, and then the host has no ports.
TEST_P(Memory, ADiscoveryThatRunsOutTakesEarlierPortsWithIt) {
    if (GetParam() == DriverKind::kron) GTEST_SKIP() << "this driver is the one that runs out";
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 2);
    hostsim::hosts::add_adapter(model, DriverKind::kron, 2);
    const hostsim::Host host(model);
    fail_allocation(sizeof(trelm_hw_info), 3);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    uint32_t count = 0;
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED);
    EXPECT_EQ(trelm_phy_info, nullptr);
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
}

}  // namespace
