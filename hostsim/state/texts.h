// texts.h - splits and joins texts.
#pragma once

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

// The parts between any of the `separators`, without empty ones.
inline std::vector<std::string> split(std::string_view text, std::string_view separators) {
    std::vector<std::string> parts;
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of(separators), text.size());
        if (end > 0) parts.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return parts;
}

inline std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string text;
    for (const std::string& part : parts) (text += text.empty() ? "" : separator) += part;
    return text;
}

}  // namespace hostsim
