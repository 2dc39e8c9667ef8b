// luns.h - the LUNs of a target. The library ends a listing at the first LUN that fails; a listing that
// failed is taken up LUN by LUN, so that one LUN that is out of order does not hide the others.
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
    std::optional<uint8_t> device_type;  // INQUIRY byte 0, where the LUN could be asked
    uint64_t capacity = 0;               // bytes
    std::string vendor;
    std::string product;
    std::string revision;
    std::string name;         // where names were asked for
    uint32_t block_size = 0;  // bytes, where it was asked for
    std::optional<Failure> failure;
};

// Whether each LUN is asked for its name and block size, too, with two commands more.
enum class LunDetail { listed, named };

// Throws where the target does not even list its LUNs. Progress is shown from LUN to LUN where there are
// many.
std::vector<ListedLun> list_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target,
                                 LunDetail detail, Progress& progress);

// The LUNs that a target lists, without a further question to them. Throws CommandFailed.
std::vector<uint64_t> report_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target);

std::string type_text(const ListedLun& lun);
std::string capacity_text(const ListedLun& lun);
std::string block_size_text(const ListedLun& lun);
Json to_json(const ListedLun& lun);

}  // namespace trelmctl
