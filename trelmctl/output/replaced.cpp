#include "replaced.h"

#include <algorithm>

namespace trelmctl {

std::string replaced(std::string_view text, std::span<const Replacement> replacements) {
    std::string out;
    for (const char c : text) {
        const auto found =
            std::find_if(replacements.begin(), replacements.end(),
                         [c](const Replacement& replacement) { return replacement.first == c; });
        out += found == replacements.end() ? std::string(1, c) : std::string(found->second);
    }
    return out;
}

}  // namespace trelmctl
