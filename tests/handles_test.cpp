// TRELM_OpenAdapter and TRELM_CloseAdapter: handles, counts of opens, the rule that says which driver serves
// a port, and every failure.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

using Handles = OnEachDriver;
TRELM_ON_EACH_DRIVER(Handles);

bool works(uint32_t handle) {
    TRELM_FCOE_INFO info{};
    return TRELM_GetFcoeInfo(handle, &info) == TRELM_STATUS_OK;
}

TEST_P(Handles, AVirtualPortIsReachedThroughItsPhysicalPort) {
    open_port(1);
    const hostsim::PhysicalPort& physical = host.model().port(0, 1);
    TRELM_VNPORT_INFO info{};
    for (const uint32_t index : {0U, 1U, 2U}) {
        EXPECT_EQ(TRELM_GetVNPortInfo(2, index, &info), TRELM_STATUS_OK);
        EXPECT_EQ(info.PortFCID, index ? physical.virtual_ports[index - 1].port_id : physical.port_id);
    }
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
        ASSERT_EQ(open_descriptors(), before + (legacy ? (opens[0] > 0) + (opens[1] > 0) : 0)) << step;
    }
    open_port(0);
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    EXPECT_LE(open_descriptors(), before);
    EXPECT_EQ(TRELM_CloseAdapter(1), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    EXPECT_FALSE(works(1)) << "a handle from before the load";
}

TEST_P(Handles, FailuresComeInTheirOrderAndAreLogged) {
    const std::string open = "TRELM_OpenAdapter", close = "TRELM_CloseAdapter";
    const std::string look_up = "trelm_get_pdb_from_user_handle: ";
    LogCapture log;
    uint32_t handle = 4711;
    log.take();
    EXPECT_EQ(TRELM_OpenAdapter(2, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_OpenAdapter(2, &handle), TRELM_STATUS_INVALID_INSTANCE);
    EXPECT_EQ(TRELM_OpenAdapter(UINT32_MAX, &handle), TRELM_STATUS_INVALID_INSTANCE);
    EXPECT_EQ(TRELM_CloseAdapter(0), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_CloseAdapter(3), TRELM_STATUS_FAILED);
    EXPECT_EQ(log.take_of({open, close, "trelm_get_pdb_from_user_handle"}),
              lines(open, {"(2): entered.", "(2): invalid parameter.", "(2): entered.",
                           "(2): pdb not found, exiting", "(4294967295): entered.",
                           "(4294967295): pdb not found, exiting"}) +
                  lines(close, {"(0): entered."}) + lines(look_up, {"invalid handle"}) +
                  lines(close, {"(0): get pdb failed.", "(3): entered.", "(3): get pdb failed."}));
    TRELM_FreeLibrary();
    log.take();
    EXPECT_EQ(TRELM_OpenAdapter(0, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_OpenAdapter(0, &handle), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_CloseAdapter(1), TRELM_STATUS_FAILED);
    EXPECT_EQ(log.take(), lines(open, {"(0): entered.", "(0): invalid parameter.", "(0): entered.",
                                       "(0): no adapters found."}) +
                              lines(close, {"(1): entered."}) +
                              lines(look_up, {"no memory allocated for api_priv_data"}) +
                              lines(close, {"(1): get pdb failed."}));
    EXPECT_EQ(handle, 4711U);
}

TEST_P(Handles, OpeningAndClosingAreTracedStepByStep) {
    LogCapture log;
    log.take();
    open_port(1);
    TRELM_CloseAdapter(2);
    const bool native = GetParam() != DriverKind::legacy;
    const std::string exit = native ? "exiting." : "exiting, rval=0";
    Lines expected{"TRELM_OpenAdapter(1): entered."};
    expected = expected + lines(transport(GetParam()) + "open_adapter", {": entered."}) +
               lines("trelm_open_adapter", native ? Lines{} : Lines{"(1): opened adapter instance."}) +
               lines(transport(GetParam()) + "open_adapter: ", {exit}) +
               lines("TRELM_OpenAdapter", {"(1): exiting, Return Handle=2 rval=0"}) +
               lines("TRELM_CloseAdapter", {"(2): entered."}) +
               lines(transport(GetParam()) + "close_adapter", {"(2): entered.", "(0): " + exit}) +
               lines("TRELM_CloseAdapter", {"(2): exiting, rval=0"});
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
    library.host.model().driver(DriverKind::legacy).presence = hostsim::Driver::Presence::absent;
    EXPECT_EQ(TRELM_OpenAdapter(0, &handle), uint32_t{ENOENT});
}

// A driver serves the ports that it found, but for the native ones, where the device decides between the two.
TEST(DriverOfAPort, FollowsFromDriverKindAndDevice) {
    using enum DriverKind;
    for (const auto& [found_by, device_id, served_by] : {std::tuple{pyx, 0x8080, kron},
                                                         {pyx, 0x8180, kron},
                                                         {pyx, 0x165C, kron},
                                                         {pyx, 0x16A1, pyx},
                                                         {kron, 0x1662, pyx},
                                                         {kron, 0x168E, pyx},
                                                         {kron, 0x8180, kron},
                                                         {kron, 0x16AE, pyx},
                                                         {legacy, 0x8080, legacy},
                                                         {legacy, 0x165C, legacy},
                                                         {legacy, 0x16A1, legacy}}) {
        SCOPED_TRACE(fmt::format("device {:04X} found by driver {}", device_id, static_cast<int>(found_by)));
        hostsim::Model model = hostsim::hosts::ports(found_by, 1);
        model.adapters[0].device_id = static_cast<uint16_t>(device_id);
        const Loaded library(model);
        LogCapture log;
        open_port();
        log.take();
        TRELM_PORT_STATS stats{};
        TRELM_GetPortStats(1, 0, &stats);
        EXPECT_EQ(log.take().at(1), transport(served_by) + "get_port_stats(1): entered.");
    }
}

}  // namespace
