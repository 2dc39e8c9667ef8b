// TRELM_OpenAdapter and TRELM_CloseAdapter: handles, counts of opens, the rule that says which driver serves
// a port, and every failure.
#include <gmock/gmock.h>

#include <array>
#include <random>

#include "support/descriptors.h"
#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"

namespace {

using namespace trelm::test;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::ElementsAre;

using Handles = OnEachDriver;
TRELM_ON_EACH_DRIVER(Handles);

bool works(uint32_t handle) {
    TRELM_FCOE_INFO info{};
    return TRELM_GetFcoeInfo(handle, &info) == TRELM_STATUS_OK;
}

TEST_P(Handles, EveryOpenWantsItsClose) {
    EXPECT_FALSE(works(1));
    EXPECT_EQ(open_port(0), 1U);
    EXPECT_EQ(open_port(0), 1U);
    EXPECT_EQ(TRELM_CloseAdapter(1), TRELM_STATUS_OK);
    EXPECT_TRUE(works(1));
    EXPECT_EQ(TRELM_CloseAdapter(1), TRELM_STATUS_OK);
    EXPECT_FALSE(works(1));
    EXPECT_EQ(TRELM_CloseAdapter(1), TRELM_STATUS_FAILED);
    EXPECT_EQ(open_port(0), 1U);
    EXPECT_TRUE(works(1));
}

TEST_P(Handles, AVirtualPortIsReachedThroughItsPhysicalPort) {
    EXPECT_EQ(open_port(1), 2U);
    const hostsim::PhysicalPort& physical = host.model().port(0, 1);
    for (const uint32_t index : {0U, 1U, 2U}) {
        TRELM_VNPORT_INFO info{};
        EXPECT_EQ(TRELM_GetVNPortInfo(2, index, &info), TRELM_STATUS_OK);
        EXPECT_EQ(info.PortFCID, index ? physical.virtual_ports[index - 1].port_id : physical.port_id);
    }
    TRELM_VNPORT_INFO info{};
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 3, &info), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_GetVNPortInfo(1, 1, &info), TRELM_STATUS_FAILED) << "only the other port is open";
}

TEST_P(Handles, OpensAndClosesInAnyOrderKeepTheirCounts) {
    const bool legacy = GetParam() == DriverKind::legacy;
    const size_t before = open_descriptors();
    std::mt19937 random(20);
    std::array<int, 2> opens{};
    for (int step = 0; step < 400; ++step) {
        const uint32_t instance = random() % 2;
        int& open = opens[instance];
        if (random() % 2) {
            open_port(instance);
            ++open;
        } else {
            EXPECT_EQ(TRELM_CloseAdapter(instance + 1), open ? TRELM_STATUS_OK : TRELM_STATUS_FAILED);
            if (open) --open;
        }
        ASSERT_EQ(works(instance + 1), open > 0) << "after step " << step;
        const size_t nodes = legacy ? (opens[0] > 0) + (opens[1] > 0) : 0;
        ASSERT_EQ(open_descriptors(), before + nodes) << "after step " << step;
    }
}

TEST_P(Handles, FreeingTheLibraryClosesEveryPort) {
    const size_t before = open_descriptors();
    open_port(0);
    open_port(0);
    open_port(1);
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    EXPECT_LE(open_descriptors(), before);
    EXPECT_EQ(TRELM_CloseAdapter(1), TRELM_STATUS_FAILED);
    EXPECT_FALSE(works(2));
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    EXPECT_FALSE(works(1)) << "a handle from before the load";
    EXPECT_EQ(open_descriptors(), before);
}

TEST_P(Handles, FailuresComeInTheirOrderAndAreLogged) {
    LogCapture log;
    uint32_t handle = 4711;
    log.take();
    EXPECT_EQ(TRELM_OpenAdapter(2, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_OpenAdapter(2, &handle), TRELM_STATUS_INVALID_INSTANCE);
    EXPECT_EQ(TRELM_OpenAdapter(UINT32_MAX, &handle), TRELM_STATUS_INVALID_INSTANCE);
    EXPECT_EQ(TRELM_CloseAdapter(0), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_CloseAdapter(3), TRELM_STATUS_FAILED);
    EXPECT_EQ(handle, 4711U);
    EXPECT_THAT(
        log.take_of({"TRELM_OpenAdapter", "TRELM_CloseAdapter", "trelm_get_pdb_from_user_handle"}),
        ElementsAre("TRELM_OpenAdapter(2): entered.", "TRELM_OpenAdapter(2): invalid parameter.",
                    "TRELM_OpenAdapter(2): entered.", "TRELM_OpenAdapter(2): pdb not found, exiting",
                    "TRELM_OpenAdapter(4294967295): entered.",
                    "TRELM_OpenAdapter(4294967295): pdb not found, exiting",
                    "TRELM_CloseAdapter(0): entered.", "trelm_get_pdb_from_user_handle: invalid handle",
                    "TRELM_CloseAdapter(0): get pdb failed.", "TRELM_CloseAdapter(3): entered.",
                    "TRELM_CloseAdapter(3): get pdb failed."));
    TRELM_FreeLibrary();
    log.take();
    EXPECT_EQ(TRELM_OpenAdapter(0, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_OpenAdapter(0, &handle), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_CloseAdapter(1), TRELM_STATUS_FAILED);
    EXPECT_THAT(log.take(),
                ElementsAre("TRELM_OpenAdapter(0): entered.", "TRELM_OpenAdapter(0): invalid parameter.",
                            "TRELM_OpenAdapter(0): entered.", "TRELM_OpenAdapter(0): no adapters found.",
                            "TRELM_CloseAdapter(1): entered.",
                            "trelm_get_pdb_from_user_handle: no memory allocated for api_priv_data",
                            "TRELM_CloseAdapter(1): get pdb failed."));
}

TEST_P(Handles, OpeningAndClosingAreTracedStepByStep) {
    LogCapture log;
    log.take();
    open_port(1);
    TRELM_CloseAdapter(2);
    const std::string open = transport(GetParam()) + "open_adapter";
    const std::string close = transport(GetParam()) + "close_adapter";
    const bool native = GetParam() != DriverKind::legacy;
    Lines expected{"TRELM_OpenAdapter(1): entered.", open + ": entered."};
    if (!native) expected.push_back(open + "(1): opened adapter instance.");
    expected.insert(expected.end(), {open + (native ? ": exiting." : ": exiting, rval=0"),
                                     "TRELM_OpenAdapter(1): exiting, Return Handle=2 rval=0",
                                     "TRELM_CloseAdapter(2): entered.", close + "(2): entered.",
                                     close + (native ? "(0): exiting." : "(0): exiting, rval=0"),
                                     "TRELM_CloseAdapter(2): exiting, rval=0"});
    EXPECT_EQ(log.take(), expected);
}

TEST(LegacyHandles, ANodeThatCannotBeOpenedOrClosedGivesTheSystemsError) {
    Loaded library(two_port_host(DriverKind::legacy));
    LogCapture log;
    log.take();
    library.host.inject(fault(Operation::open, {.error = EACCES}));
    uint32_t handle = 0;
    EXPECT_EQ(TRELM_OpenAdapter(1, &handle), uint32_t{EACCES});
    EXPECT_THAT(log.take(),
                ElementsAre("TRELM_OpenAdapter(1): entered.", "trelm_open_adapter: entered.",
                            "trelm_open_adapter(1): error opening adapter=13, fd=18446744073709551615",
                            "trelm_open_adapter: exiting, rval=1", "TRELM_OpenAdapter(1): open failed.",
                            "TRELM_OpenAdapter(1): exiting, Return Handle=0 rval=Dh"));
    open_port(1);
    library.host.inject(fault(Operation::close, {.error = EIO}));
    log.take();
    EXPECT_EQ(TRELM_CloseAdapter(2), uint32_t{EIO});
    EXPECT_THAT(log.take(), ElementsAre("TRELM_CloseAdapter(2): entered.", "trelm_close_adapter(2): entered.",
                                        "trelm_close_adapter(2): exiting, rval=1",
                                        "TRELM_CloseAdapter(2): exiting, rval=5"));
    EXPECT_TRUE(works(2)) << "a port that could not be closed stays open";
    put_back(trelm_get_pdb_from_user_handle(2)->hw_info->oshandle);
    EXPECT_EQ(TRELM_CloseAdapter(2), TRELM_STATUS_OK);
    EXPECT_EQ(TRELM_CloseAdapter(2), TRELM_STATUS_FAILED);

    library.host.model().driver(DriverKind::legacy).presence = hostsim::Driver::Presence::absent;
    EXPECT_EQ(TRELM_OpenAdapter(0, &handle), uint32_t{ENOENT});
}

// A driver serves the ports that it found, but for the native ones, where the device decides between the two.
TEST(DriverOfAPort, FollowsFromDriverKindAndDevice) {
    struct Row {
        DriverKind found_by;
        uint16_t device_id;
        const char* served_by;
    };
    const std::vector<Row> rows{
        {DriverKind::pyx, 0x8080, "trelmnt_"},      {DriverKind::pyx, 0x8180, "trelmnt_"},
        {DriverKind::pyx, 0x165C, "trelmnt_"},      {DriverKind::pyx, 0x16A1, "trelm_pyxnt_"},
        {DriverKind::kron, 0x1662, "trelm_pyxnt_"}, {DriverKind::kron, 0x168E, "trelm_pyxnt_"},
        {DriverKind::kron, 0x8180, "trelmnt_"},     {DriverKind::kron, 0x16AE, "trelm_pyxnt_"},
        {DriverKind::legacy, 0x8080, "trelm_"},     {DriverKind::legacy, 0x165C, "trelm_"},
        {DriverKind::legacy, 0x16A1, "trelm_"}};
    for (const Row& row : rows) {
        SCOPED_TRACE(
            fmt::format("device {:04X} found by driver {}", row.device_id, static_cast<int>(row.found_by)));
        hostsim::Model model = hostsim::hosts::ports(row.found_by, 1);
        model.adapters[0].device_id = row.device_id;
        const Loaded library(model);
        LogCapture log;
        open_port();
        log.take();
        TRELM_PORT_STATS stats{};
        TRELM_GetPortStats(1, 0, &stats);
        const Lines lines = log.take();
        ASSERT_GE(lines.size(), 2U);
        EXPECT_EQ(lines[1], std::string(row.served_by) + "get_port_stats(1): entered.");
    }
}

}  // namespace
