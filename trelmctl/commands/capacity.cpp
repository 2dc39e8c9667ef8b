// capacity.cpp - `trelmctl capacity`: the size of a LUN.
#include "capacity.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "ports.h"
#include "text.h"

namespace trelmctl {
namespace {

constexpr std::size_t kValueIndent = 12;

}  // namespace

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
    output.print_lines(fmt::format("Capacity    {} ({} bytes)\nBlocks      {} of {} bytes\nLast block  {}\n",
                                   human_size(capacity.bytes()), capacity.bytes(), capacity.blocks(),
                                   capacity.block_size, capacity.last_block),
                       kValueIndent);
    if (!capacity.sixteen) return;
    output.print_lines(fmt::format("Physical    {} blocks to a physical block\nThin        {}\n",
                                   capacity.blocks_per_physical_block, yes_or_no(capacity.thin)),
                       kValueIndent);
}

}  // namespace trelmctl
