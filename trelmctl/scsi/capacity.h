// capacity.h - READ CAPACITY: the size of a LUN.
#pragma once

#include <cstdint>

#include "scsi_command.h"

namespace trelmctl {

struct Capacity {
    uint64_t last_block = 0;
    uint32_t block_size = 0;
    bool sixteen = false;  // READ CAPACITY(16) was used, which reports the other fields
    uint32_t blocks_per_physical_block = 0;
    bool thin = false;

    uint64_t blocks() const { return last_block + 1; }
    uint64_t bytes() const { return blocks() * block_size; }
};

// Sends the short command, and the long one if the short one cannot tell or if it is wanted. Throws
// CommandFailed.
Capacity read_capacity(const LunAddress& address, bool sixteen = false);

}  // namespace trelmctl
