// Port statistics: the counters of the driver, passed on unchanged.

#include <cstring>

#include "port_call.h"
#include "transport.h"
#include "trelm_pool.h"

namespace {

// The public record has a version and then the thirty counters of the driver in the same order.
constexpr size_t kCounterBytes = offsetof(dorfc_port_stats, reserved);
constexpr size_t kFirstCounter = offsetof(TRELM_PORT_STATS, RxFCoEFrames);
static_assert(sizeof(TRELM_PORT_STATS) - kFirstCounter == kCounterBytes);
#define SAME_COUNTER(theirs, ours) \
    static_assert(offsetof(dorfc_port_stats, theirs) == offsetof(TRELM_PORT_STATS, ours) - kFirstCounter)
SAME_COUNTER(rx_fcoe_frames, RxFCoEFrames);
SAME_COUNTER(rx_fcoe_bytes, RxFCoEBytes);
SAME_COUNTER(rx_fcp_frames, RxFCPFrames);
SAME_COUNTER(tx_fcoe_frames, TxFCoEFrames);
SAME_COUNTER(tx_fcoe_bytes, TxFCoEBytes);
SAME_COUNTER(tx_fcp_frames, TxFCPFrames);
SAME_COUNTER(fcoe_dropped_frames, FCoEDropedFrames);
SAME_COUNTER(seq_dropped, SequencesDropped);
SAME_COUNTER(fc_crc_err_frames, FCCRCErrorFrames);
SAME_COUNTER(wrong_fcoe_ver_frames, WrongFCoEVersionFrames);
SAME_COUNTER(eofa_frames, EOFAFrames);
SAME_COUNTER(missing_frames, MissingFrames);
SAME_COUNTER(seq_timeouts, SequenceTimeouts);
SAME_COUNTER(read_req, ReadRequests);
SAME_COUNTER(write_req, WriteRequests);
SAME_COUNTER(ctrl_req, ControlRequests);
SAME_COUNTER(read_megabytes, ReadMegabytes);
SAME_COUNTER(write_megabytes, WriteMegabytes);
SAME_COUNTER(fip_vlan_negotiations, FIPVlanNegotiations);
SAME_COUNTER(fip_fabric_discoveries, FIPFabricDiscoveries);
SAME_COUNTER(flogi_cnt, FLOGICount);
SAME_COUNTER(fdisc_cnt, FDISCCount);
SAME_COUNTER(ulp_tov_expirations, ULPTOVExpirations);
SAME_COUNTER(rec_expirations, RECExpirations);
SAME_COUNTER(abts_cnt, ABTSCount);
SAME_COUNTER(srr_cnt, SRRCount);
SAME_COUNTER(reset_lun_cnt, ResetLUNCount);
SAME_COUNTER(reset_tgt_cnt, ResetTargetCount);
SAME_COUNTER(sess_level_recovery_cnt, SessionLevelRecoveryCount);
SAME_COUNTER(link_failures, LinkFailures);
#undef SAME_COUNTER

}  // namespace

uint32_t TRELM_GetPortStats(uint32_t Handle, uint32_t NpivIndex, TRELM_PORT_STATS* pStats) {
    using trelm::detail::fail_call;
    trelm::detail::trace_call(__func__, Handle, trelm::detail::kEntered);
    if (!pStats)
        return fail_call(__func__, Handle, trelm::detail::kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);
    trelm::detail::PortCall call(Handle, NpivIndex);
    trelm_priv_db* const pdb = call.port();
    if (!pdb) return fail_call(__func__, Handle, trelm::detail::kNoPort, TRELM_STATUS_FAILED);

    const trelm::detail::Transport& transport = trelm::detail::transport_of(pdb->hw_info);
    const trelm::detail::Pooled<dorfc_port_stats> stats;
    if (!stats) return fail_call(__func__, Handle, transport.stats_alloc_failed, TRELM_STATUS_NO_MEMORY);
    // The legacy driver may read this record, so it is cleared; the answer of a native driver overwrites all
    // of it.
    if (!transport.driver) *stats.get() = {};
    const trelm::detail::Outcome outcome = ask_port_stats(transport, pdb, stats.get());
    if (outcome.failed())
        return trelm::detail::fail_request(__func__, Handle, "): get stats failed, stat=", outcome);

    memcpy(reinterpret_cast<uint8_t*>(pStats) + kFirstCounter, stats.get(), kCounterBytes);
    trelm::detail::trace_call(__func__, Handle, {trelm::detail::kExiting, TRELM_STATUS_OK});
    return TRELM_STATUS_OK;
}
