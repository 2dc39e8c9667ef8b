// counters.h - the counters of a port as a table: group, names, and place in the record.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "trelm_mgmt.h"

namespace trelmctl {

struct Counter {
    const char* group;
    const char* key;
    const char* label;
    std::size_t offset;

    // The record is packed, so its counters are not aligned.
    uint64_t of(const TRELM_PORT_STATS& stats) const {
        uint64_t value = 0;
        std::memcpy(&value, reinterpret_cast<const char*>(&stats) + offset, sizeof value);
        return value;
    }
};

#define TRELM_COUNTER(group, key, label, field) \
    Counter { group, key, label, offsetof(TRELM_PORT_STATS, field) }
inline constexpr std::array kCounters{
    TRELM_COUNTER("frames", "rx_fcoe_frames", "FCoE frames received", RxFCoEFrames),
    TRELM_COUNTER("frames", "rx_fcoe_bytes", "FCoE bytes received", RxFCoEBytes),
    TRELM_COUNTER("frames", "rx_fcp_frames", "FCP frames received", RxFCPFrames),
    TRELM_COUNTER("frames", "tx_fcoe_frames", "FCoE frames sent", TxFCoEFrames),
    TRELM_COUNTER("frames", "tx_fcoe_bytes", "FCoE bytes sent", TxFCoEBytes),
    TRELM_COUNTER("frames", "tx_fcp_frames", "FCP frames sent", TxFCPFrames),
    TRELM_COUNTER("requests", "read_requests", "Read requests", ReadRequests),
    TRELM_COUNTER("requests", "write_requests", "Write requests", WriteRequests),
    TRELM_COUNTER("requests", "control_requests", "Control requests", ControlRequests),
    TRELM_COUNTER("requests", "read_megabytes", "Megabytes read", ReadMegabytes),
    TRELM_COUNTER("requests", "write_megabytes", "Megabytes written", WriteMegabytes),
    TRELM_COUNTER("fabric", "fip_vlan_negotiations", "FIP VLAN negotiations", FIPVlanNegotiations),
    TRELM_COUNTER("fabric", "fip_fabric_discoveries", "FIP fabric discoveries", FIPFabricDiscoveries),
    TRELM_COUNTER("fabric", "flogi_count", "FLOGIs", FLOGICount),
    TRELM_COUNTER("fabric", "fdisc_count", "FDISCs", FDISCCount),
    TRELM_COUNTER("errors", "fcoe_dropped_frames", "FCoE frames dropped", FCoEDropedFrames),
    TRELM_COUNTER("errors", "sequences_dropped", "Sequences dropped", SequencesDropped),
    TRELM_COUNTER("errors", "fc_crc_error_frames", "Frames with FC CRC errors", FCCRCErrorFrames),
    TRELM_COUNTER("errors", "wrong_fcoe_version_frames", "Frames of a wrong FCoE version",
                  WrongFCoEVersionFrames),
    TRELM_COUNTER("errors", "eofa_frames", "Frames ended with EOFa", EOFAFrames),
    TRELM_COUNTER("errors", "missing_frames", "Missing frames", MissingFrames),
    TRELM_COUNTER("errors", "sequence_timeouts", "Sequence timeouts", SequenceTimeouts),
    TRELM_COUNTER("errors", "link_failures", "Link failures", LinkFailures),
    TRELM_COUNTER("recovery", "ulp_tov_expirations", "ULP_TOV expirations", ULPTOVExpirations),
    TRELM_COUNTER("recovery", "rec_expirations", "REC expirations", RECExpirations),
    TRELM_COUNTER("recovery", "abts_count", "ABTSs", ABTSCount),
    TRELM_COUNTER("recovery", "srr_count", "SRRs", SRRCount),
    TRELM_COUNTER("recovery", "reset_lun_count", "LUN resets", ResetLUNCount),
    TRELM_COUNTER("recovery", "reset_target_count", "Target resets", ResetTargetCount),
    TRELM_COUNTER("recovery", "session_level_recovery_count", "Session-level recoveries",
                  SessionLevelRecoveryCount),
};
#undef TRELM_COUNTER
static_assert(sizeof(TRELM_PORT_STATS) == 4 + kCounters.size() * sizeof(uint64_t),
              "every counter is in the table");

}  // namespace trelmctl
