// Port statistics: the driver's counters, passed on unchanged.

#include <cstring>

#include "port_call.h"
#include "transport.h"
#include "trelm_pool.h"

namespace {

// The public record is the driver's thirty counters, in the same order, behind a version.
constexpr size_t kCounters = offsetof(dorfc_port_stats, reserved);
static_assert(sizeof(TRELM_PORT_STATS) - offsetof(TRELM_PORT_STATS, RxFCoEFrames) == kCounters);

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
    // The legacy driver gets this very record; a native one's answer overwrites all of it.
    if (!transport.driver) *stats.get() = {};
    const trelm::detail::Outcome outcome = ask_port_stats(transport, pdb, stats.get());
    if (outcome.failed())
        return trelm::detail::fail_request(__func__, Handle, "): get stats failed, stat=", outcome);

    memcpy(reinterpret_cast<uint8_t*>(pStats) + offsetof(TRELM_PORT_STATS, RxFCoEFrames), stats.get(),
           kCounters);
    trelm::detail::trace_call(__func__, Handle, {trelm::detail::kExiting, TRELM_STATUS_OK});
    return TRELM_STATUS_OK;
}
