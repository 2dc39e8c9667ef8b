// Listing the SCSI targets that a port sees.

#include "port_call.h"
#include "scsi_commands.h"
#include "transport.h"
#include "trelm_owners.h"

namespace {

using trelm::detail::fail_call;
using trelm::detail::fail_request;
using trelm::detail::kInvalidParameter;
using trelm::detail::Outcome;
using trelm::detail::Piece;
using trelm::detail::PortCall;

constexpr char kFunction[] = "TRELM_GetTgtInfo";

// The number of LUNs that the target reports. A target that does not answer is listed too.
uint32_t count_luns(PortCall& call, uint32_t target, uint8_t* data) {
    const uint32_t status = send(call, trelm::detail::kReportLuns, {target, 0, 0}, data);
    if (status != TRELM_STATUS_OK)
        trelm::detail::error_call(kFunction, call.handle(), {"): send scsi cmd failed, rval=", status, 16});
    return trelm::detail::announced_luns(data);
}

void fill(TRELM_TGT_INFO& info, uint32_t index, uint32_t luns, const dorfc_tgt_info& target) {
    info.ScsiTgtNum = index;
    info.LunCount = luns;
    trelm_revcpy(info.WWNN, &target.wwnn, sizeof info.WWNN);
    trelm_revcpy(info.WWPN, &target.wwpn, sizeof info.WWPN);
    trelm_revcpy(info.PortID, &target.portid, sizeof info.PortID);
    info.PortState = target.port_state;
}

// Walks the driver's target table until `wanted` targets are listed.
uint32_t list_targets(PortCall& call, uint32_t wanted, TRELM_TGT_INFO* element, dorfc_tgt_info* target,
                      uint8_t* data) {
    const uint32_t handle = call.handle();
    const trelm::detail::Transport& transport = trelm::detail::transport_of(call.port()->hw_info);
    for (uint32_t index = 0; index < TRELM_MAX_TARGETS; ++index) {
        *target = {};
        target->scsi_tgt_num = index;
        const Outcome outcome = ask_tgt_info(transport, call.port(), target);
        if (outcome.stat == DRIVER_STATUS_DEVICE_OFFLINE) {
            trelm::detail::error(kFunction, Piece("(", handle), Piece("): device offline for index=", index),
                                 " continuing for next index");
            continue;
        }
        if (outcome.failed())
            return fail_request(kFunction, handle, "): tgt info ioctl failed, stat=", outcome);
        const uint32_t luns = count_luns(call, index, data);
        fill(*element++, index, luns, *target);
        if (--wanted == 0) {
            trelm::detail::trace_call(kFunction, handle, {trelm::detail::kExiting, TRELM_STATUS_OK});
            return TRELM_STATUS_OK;
        }
    }
    trelm::detail::error(kFunction, Piece("(", handle), Piece("): got index=", TRELM_MAX_TARGETS),
                         Piece(" which is above max supported value of=", TRELM_MAX_TARGETS));
    return TRELM_STATUS_OK;
}

}  // namespace

uint32_t TRELM_GetTgtInfo(uint32_t Handle, uint32_t NpivIndex, uint32_t* pTgtCount,
                          TRELM_TGT_INFO** pTgtInfo) {
    trelm::detail::trace_call(kFunction, Handle, trelm::detail::kEntered);
    if (!pTgtCount) return fail_call(kFunction, Handle, kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);
    PortCall call(Handle, NpivIndex);
    trelm_priv_db* const pdb = call.port();
    if (!pdb) return fail_call(kFunction, Handle, trelm::detail::kNoPort, TRELM_STATUS_FAILED);
    const uint32_t targets = __atomic_load_n(&pdb->tgt_cnt, __ATOMIC_RELAXED);
    if (targets == 0) {
        *pTgtCount = 0;
        return fail_call(kFunction, Handle, "): No targets present.", TRELM_STATUS_OK);
    }
    if (targets > *pTgtCount) {
        *pTgtCount = targets;
        return fail_call(kFunction, Handle, "): API tgt count greater than apps tgt count.",
                         TRELM_STATUS_INSUFFICIENT_BUFFER);
    }
    if (!pTgtInfo || !*pTgtInfo)
        return fail_call(kFunction, Handle, kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);
    const trelm::detail::Heap<uint8_t> data(trelm::detail::kReportLunsRoom);
    if (!data) return fail_call(kFunction, Handle, trelm::detail::kNoDataBuffer, TRELM_STATUS_NO_MEMORY);
    const trelm::detail::Heap<dorfc_tgt_info> target;
    if (!target) {
        return fail_call(kFunction, Handle, trelm::detail::transport_of(pdb->hw_info).tgt_alloc_failed,
                         TRELM_STATUS_NO_MEMORY);
    }
    return list_targets(call, targets, *pTgtInfo, target.get(), data.get());
}
