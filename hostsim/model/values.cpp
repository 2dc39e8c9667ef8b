// values.cpp - reads and writes the text forms of host files.
#include "values.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <span>
#include <utility>

namespace hostsim {
namespace {

// Fills `bytes` from two-digit groups with one colon between them; false for anything else.
bool parse_octets(std::string_view text, std::span<uint8_t> bytes) {
    if (text.size() != bytes.size() * 3 - 1) return false;
    for (size_t i = 0; i < bytes.size(); ++i) {
        const char* const first = text.data() + i * 3;
        if (i > 0 && first[-1] != ':') return false;
        if (std::from_chars(first, first + 2, bytes[i], 16).ptr != first + 2) return false;
    }
    return true;
}

struct Unit {
    std::string_view name;
    uint64_t bytes;
};
constexpr std::array kUnits{
    Unit{"", 1},
    Unit{"B", 1},
    Unit{"KiB", uint64_t{1} << 10},
    Unit{"MiB", uint64_t{1} << 20},
    Unit{"GiB", uint64_t{1} << 30},
    Unit{"TiB", uint64_t{1} << 40},
    Unit{"PiB", uint64_t{1} << 50},
    Unit{"EiB", uint64_t{1} << 60},
    Unit{"kB", 1'000},
    Unit{"MB", 1'000'000},
    Unit{"GB", 1'000'000'000},
    Unit{"TB", 1'000'000'000'000},
    Unit{"PB", 1'000'000'000'000'000},
    Unit{"EB", 1'000'000'000'000'000'000},
};

}  // namespace

std::optional<uint64_t> parse_wwn(std::string_view text) {
    std::array<uint8_t, 8> bytes{};
    if (!parse_octets(text, bytes)) return std::nullopt;
    uint64_t wwn = 0;
    for (const uint8_t byte : bytes) wwn = wwn << 8 | byte;
    return wwn;
}

std::optional<MacAddress> parse_mac(std::string_view text) {
    MacAddress mac{};
    if (!parse_octets(text, mac)) return std::nullopt;
    return mac;
}

std::optional<uint32_t> parse_pci_location(std::string_view text) {
    constexpr std::string_view kForm = "0000:00:00";
    constexpr uint32_t kLargestDevice = 31;
    if (text.size() != kForm.size()) return std::nullopt;
    uint32_t location = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        uint8_t digit = 0;
        const bool is_digit = std::from_chars(&text[i], &text[i] + 1, digit, 16).ec == std::errc{};
        if (kForm[i] == ':' ? text[i] != ':' : !is_digit) return std::nullopt;
        if (is_digit) location = location << 4 | digit;
    }
    return (location & 0xFF) <= kLargestDevice ? std::optional(location) : std::nullopt;
}

std::optional<uint64_t> parse_number(std::string_view text) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    uint64_t value = 0;
    const auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    if (error != std::errc{} || end != text.data() + text.size()) return std::nullopt;
    return value;
}

std::optional<uint64_t> parse_size(std::string_view text) {
    const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    std::string_view unit_name = text.substr(digits);
    while (unit_name.starts_with(' ')) unit_name.remove_prefix(1);
    const auto number = parse_number(text.substr(0, digits));
    const auto unit =
        std::find_if(kUnits.begin(), kUnits.end(), [&](const Unit& u) { return u.name == unit_name; });
    if (!number || unit == kUnits.end() || *number > UINT64_MAX / unit->bytes) return std::nullopt;
    return *number * unit->bytes;
}

std::string format_wwn(uint64_t wwn) {
    std::string text;
    for (int shift = 56; shift >= 0; shift -= 8) {
        text += fmt::format("{}{:02x}", text.empty() ? "" : ":", (wwn >> shift) & 0xFF);
    }
    return text;
}

std::string format_mac(const MacAddress& mac) { return fmt::format("{:02x}", fmt::join(mac, ":")); }

}  // namespace hostsim
