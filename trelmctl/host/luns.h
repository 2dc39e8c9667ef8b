// luns.h - the LUNs of a target. The library ends a listing at the first LUN that fails. The rest is then
// read LUN by LUN, so that one faulty LUN does not hide the others.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "terminal.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

struct ListedLun {
    uint64_t lun = 0;
    std::optional<uint8_t> device_type;  // INQUIRY byte 0, if the LUN answered
    uint64_t capacity = 0;               // bytes
    std::string vendor;
    std::string product;
    std::string revision;
    std::string name;         // if names were requested
    uint32_t block_size = 0;  // bytes, if it was requested
    std::optional<Failure> failure;
};

// Whether the name and block size of each LUN are read as well, with two more commands.
enum class LunDetail { listed, named };

// Throws if the target does not list its LUNs. Shows progress from LUN to LUN if there are many.
std::vector<ListedLun> list_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target,
                                 LunDetail detail, Progress& progress);

// The LUNs that a target lists, without asking them anything. Throws CommandFailed.
std::vector<uint64_t> report_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target);

std::string type_text(const ListedLun& lun);
std::string capacity_text(const ListedLun& lun);
std::string block_size_text(const ListedLun& lun);
Json to_json(const ListedLun& lun);

}  // namespace trelmctl
