// Listing the SCSI targets that a port sees.

#include "trelm_mgmt/scsi_commands.h"
#include "trelm_mgmt/transport.h"
#include "trelm_owners.h"

namespace {

using trelm::detail::fail_call;
using trelm::detail::fail_request;
using trelm::detail::LunAddress;
using trelm::detail::Outcome;
using trelm::detail::Piece;

constexpr uint32_t kDeviceOffline = 13;  // driver status

// LUNs that the target reports; a target that does not answer is listed all the same.
uint32_t count_luns(const char* func, const LunAddress& target, uint8_t* data) {
    const uint32_t status = trelm::detail::send(trelm::detail::kReportLuns, target, data);
    if (status != TRELM_STATUS_OK) {
        trelm::detail::error_call(func, target.handle, {"): send scsi cmd failed, rval=", status, 16});
    }
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
uint32_t list_targets(const char* func, uint32_t handle, uint32_t npiv_index, trelm_priv_db* pdb,
                      uint32_t wanted, TRELM_TGT_INFO* element, dorfc_tgt_info* target, uint8_t* data) {
    const trelm::detail::Transport& transport = trelm::detail::transport_of(pdb->hw_info);
    for (uint32_t index = 0; index < TRELM_MAX_TARGETS; ++index) {
        *target = {};
        target->scsi_tgt_num = index;
        const Outcome outcome = transport.tgt_info(pdb, target);
        if (outcome.stat == kDeviceOffline) {
            trelm::detail::error(func, Piece("(", handle), Piece("): device offline for index=", index),
                                 " continuing for next index");
            continue;
        }
        if (outcome.failed()) return fail_request(func, handle, "): tgt info ioctl failed, stat=", outcome);
        const uint32_t luns = count_luns(func, {handle, npiv_index, index, 0, 0}, data);
        fill(*element++, index, luns, *target);
        if (--wanted == 0) {
            trelm::detail::trace_call(func, handle, {"): exiting, rval=", TRELM_STATUS_OK});
            return TRELM_STATUS_OK;
        }
    }
    trelm::detail::error(func, Piece("(", handle), Piece("): got index=", TRELM_MAX_TARGETS),
                         Piece(" which is above max supported value of=", TRELM_MAX_TARGETS));
    return TRELM_STATUS_OK;
}

}  // namespace

uint32_t TRELM_GetTgtInfo(uint32_t Handle, uint32_t NpivIndex, uint32_t* pTgtCount,
                          TRELM_TGT_INFO** pTgtInfo) {
    trelm::detail::trace_call(__func__, Handle, "): entered.");
    if (!pTgtCount)
        return fail_call(__func__, Handle, "): invalid parameter.", TRELM_STATUS_INVALID_PARAMETER);
    trelm_priv_db* pdb = trelm_get_vn_pdb_from_user_handle(Handle, NpivIndex);
    if (!pdb) return fail_call(__func__, Handle, "): get pdb failed.", TRELM_STATUS_FAILED);
    const uint32_t targets = pdb->tgt_cnt;
    if (targets == 0) {
        *pTgtCount = 0;
        return fail_call(__func__, Handle, "): No targets present.", TRELM_STATUS_OK);
    }
    if (targets > *pTgtCount) {
        *pTgtCount = targets;
        return fail_call(__func__, Handle, "): API tgt count greater than apps tgt count.",
                         TRELM_STATUS_INSUFFICIENT_BUFFER);
    }
    if (!pTgtInfo || !*pTgtInfo) {
        return fail_call(__func__, Handle, "): invalid parameter.", TRELM_STATUS_INVALID_PARAMETER);
    }
    const trelm::detail::Heap<uint8_t> data(trelm::detail::kReportLunsRoom);
    if (!data) return fail_call(__func__, Handle, "): pdata alloc failed.", TRELM_STATUS_NO_MEMORY);
    const trelm::detail::Heap<dorfc_tgt_info> target;
    if (!target) {
        return fail_call(__func__, Handle, trelm::detail::transport_of(pdb->hw_info).tgt_alloc_failed,
                         TRELM_STATUS_NO_MEMORY);
    }
    return list_targets(__func__, Handle, NpivIndex, pdb, targets, *pTgtInfo, target.get(), data.get());
}
