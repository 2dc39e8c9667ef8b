#include "text.h"

#include <fmt/format.h>

#include <charconv>

namespace trelmctl {

std::string escaped(std::string_view bytes) {
    std::string out;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x20 && byte < 0x7F) {
            out += c;
        } else {
            out += fmt::format("\\x{:02x}", byte);
        }
    }
    return out;
}

std::string hex_bytes(const uint8_t* bytes, std::size_t count, std::string_view separator) {
    std::string out;
    for (std::size_t i = 0; i < count; ++i) out += fmt::format("{}{:02x}", i ? separator : "", bytes[i]);
    return out;
}

std::string hex32(uint32_t value) { return fmt::format("0x{:08X}", value); }

std::string human_size(uint64_t bytes) {
    static constexpr std::array kUnits{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    auto value = static_cast<double>(bytes);
    // 1023.95 would be printed as 1024.0 of its unit.
    for (; value >= (unit == 0 ? 1024 : 1023.95) && unit + 1 < kUnits.size(); ++unit) value /= 1024;
    std::string digits = fmt::format("{:.1f}", value);
    if (digits.ends_with(".0")) digits.resize(digits.size() - 2);
    return digits + " " + kUnits[unit];
}

std::string lun_text(uint64_t lun) { return lun < 256 ? fmt::to_string(lun) : fmt::format("0x{:x}", lun); }

std::optional<uint64_t> parse_number(std::string_view text, uint64_t most) {
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal) text.remove_prefix(2);
    uint64_t value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value, hexadecimal ? 16 : 10);
    if (error != std::errc{} || stop != end || value > most) return std::nullopt;
    return value;
}

std::optional<std::array<uint8_t, 8>> parse_wwn(std::string_view text) {
    std::string digits;
    const bool colons = text.size() == 23;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool separator = colons && i % 3 == 2;
        if (separator != (text[i] == ':')) return std::nullopt;
        if (!separator) digits += text[i];
    }
    if (!colons && digits.starts_with("0x")) digits.erase(0, 2);
    const auto value = digits.size() == 16 ? parse_number("0x" + digits, UINT64_MAX) : std::nullopt;
    if (!value) return std::nullopt;
    std::array<uint8_t, 8> wwn{};
    for (std::size_t i = 0; i < wwn.size(); ++i) wwn[i] = static_cast<uint8_t>(*value >> (56 - 8 * i));
    return wwn;
}

std::string fitted(std::string_view line, std::size_t columns) {
    const auto starts_character = [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; };
    std::size_t seen = 0;
    std::size_t cut = 0;  // before the last character that fits beside the mark
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (!starts_character(line[i])) continue;
        if (++seen == columns) cut = i;
        if (seen > columns) return std::string(line.substr(0, cut)) + ">";
    }
    return std::string(line);
}

std::string wrapped(std::string_view line, std::size_t columns, std::size_t indent) {
    std::string out;
    std::size_t room = columns;
    while (line.size() > room) {
        const std::size_t blank = line.find_last_of(' ', room);
        const std::size_t first_word = line.find_first_not_of(' ');
        if (blank == std::string_view::npos || blank <= first_word) break;
        out += fmt::format("{}\n{:{}}", line.substr(0, blank), "", indent);
        line.remove_prefix(blank + 1);
        room = columns > indent + 20 ? columns - indent : 20;
    }
    return out + std::string(line);
}

}  // namespace trelmctl
