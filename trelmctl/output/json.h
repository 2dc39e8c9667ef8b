// json.h - the JSON type of the tool; members keep their order of insertion. Headers only name the type.
// Files that build documents include the library itself, which takes long to compile.
#pragma once

#include <nlohmann/json_fwd.hpp>

namespace trelmctl {

using Json = nlohmann::ordered_json;

}  // namespace trelmctl
