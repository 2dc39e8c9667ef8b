// printable.h - escapes text of unknown origin for messages, so that no byte of a host file controls a
// terminal.
#pragma once

#include <string>
#include <string_view>

#include "hostsim_api.h"

namespace hostsim {

// Control characters, direction marks and bytes that are not UTF-8 become escapes such as \x1b.
HOSTSIM_API std::string printable(std::string_view text);

// The beginning of a text, for a message: a long text is cut and ends in "…".
std::string shortened(std::string_view text);

}  // namespace hostsim
