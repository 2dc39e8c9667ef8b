// complain.h - the messages of the launcher on standard error.
#pragma once

#include <string_view>

namespace hostsim {

// Prints each line of the text with the name of the launcher before it. Control characters from a file or the
// command line are escaped.
void complain(std::string_view text);

}  // namespace hostsim
