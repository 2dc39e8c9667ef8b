// The commands of target and LUN discovery.

#include "scsi_commands.h"

#include <cstring>

namespace trelm::detail {

const ReadCommand kReportLuns = {12, {0xA0, 0, 0, 0, 0, 0, 0, 0, 0x40, 0, 0, 0}, kReportLunsRoom};
const ReadCommand kInquiry = {6, {0x12, 0, 0, 0, 0xFF, 0}, 256};
const ReadCommand kReadCapacity10 = {10, {0x25}, 32};
const ReadCommand kReadCapacity16 = {16, {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0}, 32};

uint32_t send(PortCall& call, const ReadCommand& command, const LunAddress& to, uint8_t* data) {
    memset(data, 0, command.data_len);
    TRELM_SCSI_CMND cmnd = {};
    cmnd.ScsiTgtNum = to.target;
    cmnd.ScsiLunNum = to.lun;
    cmnd.ScsiLunNumExt = to.lun_ext;
    cmnd.Direction = TRELM_SCSI_DATA_IN;
    cmnd.CDBLength = command.cdb_length;
    memcpy(cmnd.CDB, command.cdb, sizeof cmnd.CDB);
    cmnd.SenseLength = sizeof cmnd.Sense;
    uint32_t data_len = command.data_len;
    return send_scsi_command(call, &cmnd, &data_len, data);
}

uint32_t announced_luns(const uint8_t* data) { return read_be32(data) / kLunEntry; }

uint32_t read_be32(const uint8_t* bytes) {
    return uint32_t{bytes[0]} << 24 | uint32_t{bytes[1]} << 16 | uint32_t{bytes[2]} << 8 | bytes[3];
}

uint64_t read_be64(const uint8_t* bytes) { return uint64_t{read_be32(bytes)} << 32 | read_be32(bytes + 4); }

}  // namespace trelm::detail
