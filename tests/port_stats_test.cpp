// TRELM_GetPortStats: thirty counters passed on unchanged, and how it fails.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

using PortStats = OnEachDriver;
TRELM_ON_EACH_DRIVER(PortStats);

TEST_P(PortStats, EveryCounterArrivesUnchangedAtItsPlace) {
    open_port();
    Bytes expected = Bytes::initial(244);
    for (size_t i = 0; i < 30; ++i) {
        const uint64_t value = 0xF000'0001'0000'0000 + 0x0101'0101 * i;
        host.model().port(0, 0).virtual_ports[1].counters[i].start = value;
        expected.put(Field{4 + 8 * i, 8, value});
    }
    host.tamper = [](Answer& answer) { memset(answer.payload.data() + 240, 0xEE, 272); };
    Guarded<TRELM_PORT_STATS> stats;
    EXPECT_EQ(TRELM_GetPortStats(1, 2, stats.get()), TRELM_STATUS_OK);
    EXPECT_EQ(contents(stats), expected.all());
    EXPECT_TRUE(stats.guards_intact());
}

TEST_P(PortStats, FailuresAreTranslatedLeaveTheRecordAndAreLogged) {
    open_port();
    Guarded<TRELM_PORT_STATS> stats;
    const auto call = [&] { return TRELM_GetPortStats(1, 0, stats.get()); };
    expect_failures_translated(host, Operation::port_stats, call);
    LogCapture log;
    log.take();
    EXPECT_EQ(TRELM_GetPortStats(1, 3, stats.get()), TRELM_STATUS_FAILED) << "no port has this index";
    EXPECT_EQ(TRELM_GetPortStats(99, 99, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    errno = 33;
    Failure{.status = 7}.of(host, Operation::port_stats);
    call();
    Failure{.error = ENODEV}.of(host, Operation::port_stats);
    call();
    EXPECT_TRUE(stats.untouched());
    EXPECT_EQ(log.take_of("TRELM_GetPortStats"),
              lines("TRELM_GetPortStats(1): ", {"entered.", "get pdb failed."}) +
                  lines("TRELM_GetPortStats(99): ", {"entered.", "invalid parameter."}) +
                  lines("TRELM_GetPortStats(1): ", {"entered.", "get stats failed, stat=7 errno=33",
                                                    "entered.", "get stats failed, stat=0 errno=19"}));
    host.tamper = nullptr;
    EXPECT_EQ(call(), TRELM_STATUS_OK);
    EXPECT_EQ(log.take().back(), "TRELM_GetPortStats(1): exiting, rval=0");
}

}  // namespace
