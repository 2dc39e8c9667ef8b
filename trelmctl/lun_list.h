// lun_list.h - the LUNs of a target. The library ends a listing at the first LUN that fails; a listing that
// failed is taken up LUN by LUN, so that one LUN that is out of order does not hide the others.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "failure.h"
#include "output.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

struct ListedLun {
    uint64_t lun = 0;
    uint8_t device_type = 0;
    uint64_t capacity = 0;
    std::string vendor;
    std::string product;
    std::string revision;
    std::optional<Failure> failure;
};

// Throws where the target does not even list its LUNs. Progress is shown from LUN to LUN where there are
// many.
std::vector<ListedLun> list_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target,
                                 Progress& progress);

std::string capacity_text(const ListedLun& lun);
Json to_json(const ListedLun& lun);

}  // namespace trelmctl
