// What happens when memory runs out: each allocation of a call and of discovery fails in its turn, and the
// call says which, returns its code and works again afterwards.
#include "support/failing_allocation.h"
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

constexpr size_t kBlock = 262444;  // a native SCSI command with its header

using Memory = OnEachDriver;
TRELM_ON_EACH_DRIVER(Memory);

TEST_P(Memory, EveryCallSaysWhatItCouldNotAllocate) {
    const bool native = GetParam() != DriverKind::legacy;
    TRELM_PORT_STATS stats{};
    TRELM_VNPORT_INFO port{};
    TRELM_SCSI_CMND command{};
    std::array<TRELM_TGT_INFO, 2> targets{};
    std::array<TRELM_LUN_INFO, 2> luns{};
    uint32_t two = 2;
    TRELM_TGT_INFO* target_array = targets.data();
    TRELM_LUN_INFO* lun_array = luns.data();
    const auto get_stats = [&] { return TRELM_GetPortStats(1, 0, &stats); };
    const auto get_port = [&] { return TRELM_GetVNPortInfo(1, 0, &port); };
    const auto send = [&] { return TRELM_SendScsiCommand(1, 0, &command, nullptr, nullptr); };
    const auto get_targets = [&] { return TRELM_GetTgtInfo(1, 0, &two, &target_array); };
    const auto get_luns = [&] { return TRELM_GetLunInfo(1, 0, 3, &two, &lun_array); };
    struct Row {
        size_t size;
        std::function<uint32_t()> call;
        std::string line;
        unsigned after = 0;
    };
    const auto of_driver = [&](const char* kron, const char* pyx, const char* legacy) {
        return std::array{kron, pyx, legacy}.at(static_cast<size_t>(GetParam())) +
               std::string(" alloc failed.");
    };
    std::vector<Row> rows{
        {512, get_stats, "TRELM_GetPortStats(1): " + of_driver("nqstats", "nstats", "stats")},
        {native ? kBlock : 320, send, "TRELM_SendScsiCommand(1): " + of_driver("nqcmd", "ncmd", "cmd")},
        {16384, get_targets, "TRELM_GetTgtInfo(1): pdata alloc failed."},
        {64, get_targets,
         "TRELM_GetTgtInfo(1): " + of_driver("native nqtgt_info", "native ntgt_info", "ioctl tgt_info")},
        {16384, get_luns, "TRELM_GetLunInfo(1): pdata alloc failed."}};
    const std::string own = transport(GetParam());
    if (native) {
        rows.push_back({kBlock, send, own + "send_scsi_cmd(1): pcmd_cb alloc failed.", 1});
        rows.push_back({520, get_stats, own + "get_port_stats(1): pstats_cb alloc failed."});
        rows.push_back({520, get_port, own + "get_port_info(1): port_info_cb alloc failed."});
        rows.push_back({72, get_port, own + "get_fcf_info(1): pfcf_cb alloc failed."});
        rows.push_back({72, get_targets, own + "get_tgt_info(1): ptgt_cb alloc failed."});
    }
    LogCapture log(kErrorLines);
    for (const Row& row : rows) {
        SCOPED_TRACE(row.line);
        TRELM_FreeLibrary();  // with what is kept for the next command
        TRELM_LoadLibrary();
        open_port();
        log.take();
        {
            const FailingAllocation failing(row.size, row.after);
            EXPECT_EQ(row.call(), TRELM_STATUS_NO_MEMORY);
        }
        const Lines said = log.take();
        ASSERT_FALSE(said.empty());
        EXPECT_EQ(said[0], row.line);
        if (row.line.starts_with(own)) {
            EXPECT_THAT(said.at(1), testing::HasSubstr(" failed, stat=10 errno="));
        }
        EXPECT_EQ(row.call(), TRELM_STATUS_OK);
    }
}

// What the driver has found goes, and what another has found before it.
TEST_P(Memory, ADiscoveryThatRunsOutReleasesTheWholeRegistry) {
    TRELM_FreeLibrary();
    const bool legacy = GetParam() == DriverKind::legacy;
    host.model() = hostsim::hosts::ports(GetParam(), 12);
    for (const auto& [size, text] :
         {std::pair{sizeof(trelm_priv_db), legacy ? "inst=Ah mem alloc" : "inst=10 mem alloc"},
          {sizeof(trelm_hw_info), "inst=Ah hw info mem alloc"}}) {
        LogCapture log(kErrorLines);
        {
            const FailingAllocation failing(size, 10);
            EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
        }
        EXPECT_EQ(trelm_priv_database, nullptr);
        EXPECT_EQ(trelm_phy_info, nullptr);
        const std::string line = transport(GetParam()) + "find_all_instances: " + text + " failed, exiting";
        EXPECT_THAT(log.take(), testing::Contains(line));
        EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
        EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    }
    hostsim::hosts::add_adapter(host.model(), DriverKind::kron, 2);
    {
        const FailingAllocation failing(sizeof(trelm_hw_info), 13);
        TRELM_LoadLibrary();
    }
    uint32_t count = 0;
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED);
    EXPECT_EQ(trelm_phy_info, nullptr);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
}

}  // namespace
