// targets.h - the targets of a port, up to the first failure of the listing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

struct TargetList {
    std::vector<TRELM_TGT_INFO> targets;
    std::optional<Failure> failure;  // what ended the listing early
};
TargetList list_targets(const trelm::Adapter& adapter, uint32_t npiv_index);

std::string port_id_text(const TRELM_TGT_INFO& target);
Json to_json(const TRELM_TGT_INFO& target);

}  // namespace trelmctl
