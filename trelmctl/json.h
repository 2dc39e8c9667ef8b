// json.h - the JSON of the tool: members keep the order in which they are set.
#pragma once

#include <nlohmann/json.hpp>

namespace trelmctl {

using Json = nlohmann::ordered_json;

}  // namespace trelmctl
