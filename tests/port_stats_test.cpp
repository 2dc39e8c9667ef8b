// TRELM_GetPortStats: thirty counters passed on unchanged, and how it fails.
#include <gmock/gmock.h>

#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"
#include "trelm_driver_records.h"

namespace {

using namespace trelm::test;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::ElementsAre;

using PortStats = OnEachDriver;
TRELM_ON_EACH_DRIVER(PortStats);

TEST_P(PortStats, EveryCounterArrivesUnchangedAtItsPlace) {
    open_port();
    Bytes expected = Bytes::initial(244);
    for (size_t i = 0; i < 30; ++i) {
        const uint64_t value = 0xF000'0001'0000'0000 + 0x0101'0101 * i;
        host.model().port(0, 0).virtual_ports[1].counters[i].start = value;
        expected.put(4 + 8 * i, value);
    }
    host.tamper = [](hostsim::Answer& answer) {
        if (answer.call.operation == Operation::port_stats) memset(answer.payload.data() + 240, 0xEE, 272);
    };
    Guarded<TRELM_PORT_STATS> stats;
    EXPECT_EQ(TRELM_GetPortStats(1, 2, stats.get()), TRELM_STATUS_OK);
    EXPECT_EQ(contents(stats), expected.all());
    EXPECT_TRUE(stats.guards_intact());
}

TEST_P(PortStats, FailuresAreTranslatedAndLeaveTheRecord) {
    open_port();
    Guarded<TRELM_PORT_STATS> stats;
    expect_failures_translated(host, Operation::port_stats,
                               [&] { return TRELM_GetPortStats(1, 0, stats.get()); });
    EXPECT_EQ(TRELM_GetPortStats(1, 3, stats.get()), TRELM_STATUS_FAILED) << "no port has this index";
    EXPECT_EQ(TRELM_GetPortStats(0, 0, stats.get()), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_GetPortStats(99, 99, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(stats.untouched());
}

TEST_P(PortStats, EveryEndIsLogged) {
    open_port();
    LogCapture log;
    log.take();
    TRELM_PORT_STATS stats{};
    TRELM_GetPortStats(1, 0, &stats);
    const std::string name = transport(GetParam()) + "get_port_stats(1): ";
    const bool native = GetParam() != DriverKind::legacy;
    EXPECT_THAT(log.take(), ElementsAre("TRELM_GetPortStats(1): entered.", name + "entered.",
                                        name + (native ? "exiting. ret=0" : "exiting."),
                                        "TRELM_GetPortStats(1): exiting, rval=0"));
    TRELM_GetPortStats(5, 0, nullptr);
    TRELM_GetPortStats(5, 0, &stats);
    Failure{.status = 7}.of(host, Operation::port_stats);
    errno = 33;
    TRELM_GetPortStats(1, 0, &stats);
    Failure{.error = ENODEV}.of(host, Operation::port_stats);
    TRELM_GetPortStats(1, 0, &stats);
    EXPECT_THAT(log.take_of("TRELM_GetPortStats"),
                ElementsAre("TRELM_GetPortStats(5): entered.", "TRELM_GetPortStats(5): invalid parameter.",
                            "TRELM_GetPortStats(5): entered.", "TRELM_GetPortStats(5): get pdb failed.",
                            "TRELM_GetPortStats(1): entered.",
                            "TRELM_GetPortStats(1): get stats failed, stat=7 errno=33",
                            "TRELM_GetPortStats(1): entered.",
                            "TRELM_GetPortStats(1): get stats failed, stat=0 errno=19"));
}

}  // namespace
