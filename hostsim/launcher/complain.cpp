#include "complain.h"

#include <algorithm>
#include <iostream>

#include "printable.h"

namespace hostsim {

void complain(std::string_view text) {
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        std::cerr << "trelm-hostsim: " << printable(line) << std::endl;
        text.remove_prefix(std::min(line.size() + 1, text.size()));
    }
}

}  // namespace hostsim
