// disk_config.h - how a logical unit describes itself, and conditions that keep the host from its medium.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "scsi.h"

namespace hostsim {

struct DiskConfig {
    std::string vendor;         // cut or padded with spaces to the 8,
    std::string product;        // 16
    std::string revision;       // and 4 characters of the INQUIRY data
    std::string serial;         // up to 64 characters
    uint64_t naa = 0;           // the NAA identifier; 0: none is reported
    uint8_t device_type = 0;    // INQUIRY byte 0: peripheral qualifier and device type
    uint64_t block_count = 0;   // 0: no medium
    uint32_t block_size = 512;  // bytes
    bool reserved = false;      // another initiator holds an exclusive reservation
    // Why the medium cannot be used: not ready, a failure, or a unit attention. A unit attention is not
    // cleared by reporting it; the owner of the configuration does that.
    std::optional<SenseCode> condition;
};

}  // namespace hostsim
