// complain.h - what the launcher says on standard error.
#pragma once

#include <string_view>

namespace hostsim {

// Each line of the text with the launcher's name before it. What comes of a file or the command line controls no
// terminal.
void complain(std::string_view text);

}  // namespace hostsim
