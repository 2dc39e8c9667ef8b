// SCSI pass-through.

#include <cstring>

#include "trelm_mgmt/transport.h"
#include "trelm_owners.h"
#include "trelm_pool.h"

namespace {

using trelm::detail::fail_call;
using trelm::detail::scsi_cmd_record;
using trelm::detail::Transport;

// A command record of the size that the port's driver takes, for one call. Only the fields before the data
// area are used, and those are always set.
class CommandRecord {
  public:
    explicit CommandRecord(bool native)
        : bytes_(native ? sizeof(kronfc_scsi_cmd) : sizeof(dorfc_scsi_cmd)),
          memory_(trelm::detail::pool_take(bytes_)) {}
    ~CommandRecord() {
        trelm::detail::ErrnoKeeper keep;
        if (memory_) trelm::detail::pool_give_back(memory_, bytes_);
    }
    CommandRecord(const CommandRecord&) = delete;
    CommandRecord& operator=(const CommandRecord&) = delete;

    explicit operator bool() const { return memory_; }
    scsi_cmd_record* get() const { return static_cast<scsi_cmd_record*>(memory_); }

  private:
    size_t bytes_;
    void* memory_;
};

bool has_data_phase(const TRELM_SCSI_CMND& cmnd) {
    return cmnd.Direction == TRELM_SCSI_DATA_IN || cmnd.Direction == TRELM_SCSI_DATA_OUT;
}

bool is_valid(const TRELM_SCSI_CMND& cmnd, const uint32_t* pDataLen, const uint8_t* pData) {
    if (cmnd.CDBLength > kScsiMaxCdb) return false;
    return !has_data_phase(cmnd) || (pDataLen && (pData || *pDataLen == 0));
}

uint16_t sense_room(const TRELM_SCSI_CMND& cmnd) {
    return cmnd.SenseLength < kScsiMaxSense ? cmnd.SenseLength : uint16_t{kScsiMaxSense};
}

// Of a native record this is all that is looked at before the driver has answered.
void fill_request(dorfc_scsi_cmd& to, const TRELM_SCSI_CMND& cmnd, uint32_t data_len) {
    to = {};
    to.lun_ext = cmnd.ScsiLunNumExt;
    to.tgt = cmnd.ScsiTgtNum;
    to.lun = cmnd.ScsiLunNum;
    to.direction = has_data_phase(cmnd) ? cmnd.Direction : uint8_t{SCSI_DIRECTION_NONE};
    to.cdb_len = cmnd.CDBLength;
    memcpy(to.cdb, cmnd.CDB, sizeof to.cdb);
    to.sense_len = sense_room(cmnd);
    to.data_len = data_len;
}

void copy_sense(TRELM_SCSI_CMND& cmnd, const dorfc_scsi_cmd& answer) {
    const uint16_t room = sense_room(cmnd);
    memcpy(cmnd.Sense, answer.sense, answer.sense_len < room ? answer.sense_len : room);
}

}  // namespace

uint32_t TRELM_SendScsiCommand(uint32_t Handle, uint32_t NpivIndex, TRELM_SCSI_CMND* pScsiCmnd,
                               uint32_t* pDataLen, uint8_t* pData) {
    trelm::detail::trace_call(__func__, Handle, "): entered.");
    if (!pScsiCmnd || !is_valid(*pScsiCmnd, pDataLen, pData)) {
        return fail_call(__func__, Handle, "): invalid parameter.", TRELM_STATUS_INVALID_PARAMETER);
    }
    trelm_priv_db* pdb = trelm_get_vn_pdb_from_user_handle(Handle, NpivIndex);
    if (!pdb) return fail_call(__func__, Handle, "): get pdb failed.", TRELM_STATUS_FAILED);
    const Transport& transport = trelm::detail::transport_of(pdb->hw_info);
    const uint32_t data_len = has_data_phase(*pScsiCmnd) ? *pDataLen : 0;
    if (transport.native && data_len > kScsiMaxData) {
        return fail_call(__func__, Handle, "): invalid parameter.", TRELM_STATUS_INVALID_PARAMETER);
    }

    const CommandRecord record(transport.native);
    if (!record) return fail_call(__func__, Handle, transport.scsi_alloc_failed, TRELM_STATUS_NO_MEMORY);
    fill_request(record.get()->legacy, *pScsiCmnd, data_len);
    const trelm::detail::Outcome outcome =
        transport.send_scsi(pdb, record.get(), has_data_phase(*pScsiCmnd) ? pData : nullptr);
    const uint32_t status =
        outcome.failed() ? trelm::detail::fail_request(__func__, Handle, transport.scsi_failed, outcome)
                         : TRELM_STATUS_OK;
    copy_sense(*pScsiCmnd, record.get()->legacy);
    trelm::detail::trace_call(__func__, Handle, {"): exiting, rval=", status, 16});
    return status;
}
