#include "capacity.h"

#include <array>

namespace trelmctl {

Capacity read_capacity(const LunAddress& address, bool sixteen) {
    Capacity capacity;
    if (!sixteen) {
        const auto data = read_or_throw(address, std::array<uint8_t, 10>{0x25}, 8);
        capacity.last_block = big_endian(data, 0, 4);
        capacity.block_size = static_cast<uint32_t>(big_endian(data, 4, 4));
        if (capacity.last_block != UINT32_MAX) return capacity;
    }
    const auto data =
        read_or_throw(address, std::array<uint8_t, 16>{0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}, 32);
    capacity.sixteen = true;
    capacity.last_block = big_endian(data, 0, 8);
    capacity.block_size = static_cast<uint32_t>(big_endian(data, 8, 4));
    capacity.blocks_per_physical_block = 1u << (data[13] & 0x0F);
    capacity.thin = (data[14] & 0x80) != 0;
    return capacity;
}

}  // namespace trelmctl
