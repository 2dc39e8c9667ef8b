// scsi_commands.h - the SCSI commands that target and LUN discovery sends.
#pragma once

#include <cstdint>

#include "port_call.h"

namespace trelm::detail {

inline constexpr uint32_t kReportLunsRoom = 16384;
inline constexpr uint32_t kReportLunsHeader = 8;
inline constexpr uint32_t kLunEntry = 8;
inline constexpr uint32_t kMaxLuns = (kReportLunsRoom - kReportLunsHeader) / kLunEntry;

// The logical unit that a command is sent to.
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

// Sends the command with TRELM_SendScsiCommand. `data` has room for data_len bytes of the command and is
// cleared first.
uint32_t send(PortCall& call, const ReadCommand& command, const LunAddress& to, uint8_t* data);

// The number of entries in the header of a LUN list, which may be more than were received.
uint32_t announced_luns(const uint8_t* data);

uint32_t read_be32(const uint8_t* bytes);
uint64_t read_be64(const uint8_t* bytes);

}  // namespace trelm::detail
