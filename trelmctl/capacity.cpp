#include "capacity.h"

#include <fmt/format.h>

#include <array>

#include "commands.h"
#include "text.h"

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

void run_capacity(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    const LunAddress address{port.adapter, port.npiv_index, options.target, options.lun};
    const Capacity capacity = read_capacity(address, options.sixteen);
    if (output.json()) {
        Json& document = output.document();
        name_lun(address, document);
        document["capacity"] = human_size(capacity.bytes());
        document["capacity_bytes"] = capacity.bytes();
        document["blocks"] = capacity.blocks();
        document["last_block"] = capacity.last_block;
        document["block_size"] = capacity.block_size;
        document["blocks_per_physical_block"] =
            capacity.sixteen ? Json(capacity.blocks_per_physical_block) : Json();
        document["thin_provisioned"] = capacity.sixteen ? Json(capacity.thin) : Json();
        return;
    }
    output.print(fmt::format("Capacity    {} ({} bytes)\nBlocks      {} of {} bytes\nLast block  {}\n",
                             human_size(capacity.bytes()), capacity.bytes(), capacity.blocks(),
                             capacity.block_size, capacity.last_block));
    if (!capacity.sixteen) return;
    output.print(fmt::format("Physical    {} blocks to a physical block\nThin        {}\n",
                             capacity.blocks_per_physical_block, capacity.thin ? "yes" : "no"));
}

}  // namespace trelmctl
