// capacity.h - READ CAPACITY: how large a LUN is.
#pragma once

#include <cstdint>

#include "scsi_command.h"

namespace trelmctl {

struct Capacity {
    uint64_t last_block = 0;
    uint32_t block_size = 0;
    bool sixteen = false;  // from READ CAPACITY(16), which tells the rest
    uint32_t blocks_per_physical_block = 0;
    bool thin = false;

    uint64_t blocks() const { return last_block + 1; }
    uint64_t bytes() const { return blocks() * block_size; }
};

// The short command, and the long one where the short one cannot say or where it is asked for. Throws
// CommandFailed.
Capacity read_capacity(const LunAddress& address, bool sixteen = false);

}  // namespace trelmctl
