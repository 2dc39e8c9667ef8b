// scsi_commands.h - the SCSI commands with which targets and LUNs are found and described.
#pragma once

#include <cstdint>

#include "port_call.h"

namespace trelm::detail {

inline constexpr uint32_t kReportLunsRoom = 16384;
inline constexpr uint32_t kReportLunsHeader = 8;
inline constexpr uint32_t kLunEntry = 8;
inline constexpr uint32_t kMaxLuns = (kReportLunsRoom - kReportLunsHeader) / kLunEntry;

// Who a command goes to.
struct LunAddress {
    uint32_t target;
    uint32_t lun;
    uint32_t lun_ext;
};

// A command that reads `data_len` bytes.
struct ReadCommand {
    uint8_t cdb_length;
    uint8_t cdb[16];
    uint32_t data_len;
};

extern const ReadCommand kReportLuns;
extern const ReadCommand kInquiry;
extern const ReadCommand kReadCapacity10;
extern const ReadCommand kReadCapacity16;

// Sends the command as TRELM_SendScsiCommand does. `data` has room for the command's data_len bytes and is
// cleared first.
uint32_t send(PortCall& call, const ReadCommand& command, const LunAddress& to, uint8_t* data);

// Entries that the header of a LUN list announces, received or not.
uint32_t announced_luns(const uint8_t* data);

uint32_t read_be32(const uint8_t* bytes);
uint64_t read_be64(const uint8_t* bytes);

}  // namespace trelm::detail
