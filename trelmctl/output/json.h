// json.h - the JSON of the tool: members keep the order in which they are set. Headers name the type; files
// that build documents include the library itself, which is what takes long to compile.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace trelmctl {

using Json = nlohmann::ordered_json;

}  // namespace trelmctl
