// printable.cpp - escapes by code point, so that UTF-8 text passes unchanged.
#include "printable.h"

#include <fmt/format.h>

#include <cstdint>

namespace hostsim {
namespace {

constexpr size_t kShown = 40;

bool is_continuation(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

// The length of the UTF-8 sequence at the start of `text` and its code point; length 0 if there is none.
struct Sequence {
    size_t length;
    uint32_t code_point;
};

Sequence first_sequence(std::string_view text) {
    constexpr uint32_t kSmallest[]{0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<unsigned char>(text.front());
    if (lead < 0x80) return {1, lead};
    const size_t length = lead >= 0xF8 ? 0 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 0;
    if (length == 0 || length > text.size()) return {0, 0};
    uint32_t code_point = lead & (0x7FU >> length);
    for (const char c : text.substr(1, length - 1)) {
        if (!is_continuation(c)) return {0, 0};
        code_point = code_point << 6 | (static_cast<unsigned char>(c) & 0x3F);
    }
    return {code_point < kSmallest[length] ? 0 : length, code_point};
}

bool is_harmless(uint32_t code_point) {
    const bool control = code_point < 0x20 || (code_point >= 0x7F && code_point < 0xA0);
    const bool separator_or_direction = (code_point >= 0x2028 && code_point <= 0x202E) ||
                                        (code_point >= 0x2066 && code_point <= 0x2069) ||
                                        code_point == 0x200E || code_point == 0x200F;
    const bool no_character = (code_point >= 0xD800 && code_point < 0xE000) || code_point > 0x10FFFF;
    return !control && !separator_or_direction && !no_character;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const auto [length, code_point] = first_sequence(text);
        const size_t taken = length == 0 ? 1 : length;
        if (length > 0 && is_harmless(code_point)) {
            result += text.substr(0, taken);
        } else {
            for (const char c : text.substr(0, taken))
                result += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
        text.remove_prefix(taken);
    }
    return result;
}

std::string shortened(std::string_view text) {
    if (text.size() <= kShown) return std::string(text);
    size_t end = kShown;
    while (end > 0 && is_continuation(text[end])) --end;
    return std::string(text.substr(0, end)) + "…";
}

}  // namespace hostsim
