// printable.h - text of unknown origin made fit for a message: no byte of a host file may control a terminal.
#pragma once

#include <string>
#include <string_view>

#include "hostsim_api.h"

namespace hostsim {

// Control characters, direction marks and bytes that are not UTF-8 become escapes such as \x1b.
HOSTSIM_API std::string printable(std::string_view text);

// The beginning of a text, for a message: cut with "…" where it is long.
std::string shortened(std::string_view text);

}  // namespace hostsim
