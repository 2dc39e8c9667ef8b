// SCSI pass-through.

#include <cstring>

#include "port_call.h"
#include "transport.h"
#include "trelm_pool.h"

namespace {

constexpr char kFunction[] = "TRELM_SendScsiCommand";

// The command record for one call, of the size that the driver of the port takes. Only the fields up to the
// data length are used, where the records of all drivers are alike, and all of these are set.
class CommandRecord {
  public:
    explicit CommandRecord(bool native)
        : bytes_(native ? sizeof(kronfc_scsi_cmd) : sizeof(dorfc_scsi_cmd)),
          memory_(trelm::detail::pool_take(bytes_)) {}
    ~CommandRecord() {
        if (memory_) trelm::detail::pool_give_back(memory_, bytes_);
    }
    CommandRecord(const CommandRecord&) = delete;
    CommandRecord& operator=(const CommandRecord&) = delete;

    explicit operator bool() const { return memory_; }
    dorfc_scsi_cmd* get() const { return static_cast<dorfc_scsi_cmd*>(memory_); }

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

uint32_t trelm::detail::send_scsi_command(PortCall& call, TRELM_SCSI_CMND* pScsiCmnd, uint32_t* pDataLen,
                                          uint8_t* pData) {
    const uint32_t handle = call.handle();
    trace_call(kFunction, handle, kEntered);
    if (!pScsiCmnd || !is_valid(*pScsiCmnd, pDataLen, pData))
        return fail_call(kFunction, handle, kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);
    trelm_priv_db* const pdb = call.port();
    if (!pdb) return fail_call(kFunction, handle, kNoPort, TRELM_STATUS_FAILED);
    const Transport& transport = transport_of(pdb->hw_info);
    const uint32_t data_len = has_data_phase(*pScsiCmnd) ? *pDataLen : 0;
    if (transport.driver && data_len > kScsiMaxData)
        return fail_call(kFunction, handle, kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);

    const CommandRecord record(transport.driver);
    if (!record) return fail_call(kFunction, handle, transport.scsi_alloc_failed, TRELM_STATUS_NO_MEMORY);
    fill_request(*record.get(), *pScsiCmnd, data_len);
    const Outcome outcome =
        send_scsi(transport, pdb, record.get(), has_data_phase(*pScsiCmnd) ? pData : nullptr);
    const uint32_t status =
        outcome.failed() ? fail_request(kFunction, handle, transport.scsi_failed, outcome) : TRELM_STATUS_OK;
    copy_sense(*pScsiCmnd, *record.get());
    trace_call(kFunction, handle, {kExiting, status, 16});
    return status;
}

uint32_t TRELM_SendScsiCommand(uint32_t Handle, uint32_t NpivIndex, TRELM_SCSI_CMND* pScsiCmnd,
                               uint32_t* pDataLen, uint8_t* pData) {
    trelm::detail::PortCall call(Handle, NpivIndex);
    return send_scsi_command(call, pScsiCmnd, pDataLen, pData);
}
