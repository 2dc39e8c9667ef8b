#include "hexdump.h"

#include <fmt/format.h>

#include <algorithm>

namespace trelmctl {
namespace {

constexpr std::size_t kPerLine = 16;
constexpr std::size_t kPerShortLine = 8;
constexpr std::size_t kColumns = 78;  // of a line of 16 bytes

std::string line(std::span<const uint8_t> bytes, std::size_t offset, std::size_t per_line) {
    std::string out = fmt::format("{:08x} ", offset);
    for (std::size_t i = 0; i < per_line; ++i) {
        if (i % 8 == 0) out += ' ';
        out += i < bytes.size() ? fmt::format("{:02x} ", bytes[i]) : "   ";
    }
    out += " |";
    for (const uint8_t byte : bytes) out += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    return out + "|\n";
}

}  // namespace

std::string hexdump(std::span<const uint8_t> bytes, std::size_t columns) {
    const std::size_t per_line = columns < kColumns ? kPerShortLine : kPerLine;
    std::string out;
    bool skipping = false;
    for (std::size_t at = 0; at < bytes.size(); at += per_line) {
        const auto row = bytes.subspan(at, std::min(per_line, bytes.size() - at));
        // Repeated rows are replaced with a single star, as in other dumps. The last row is always shown.
        const bool repeated =
            at > 0 && at + per_line < bytes.size() &&
            std::equal(row.begin(), row.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at - per_line));
        if (!repeated) out += line(row, at, per_line);
        if (repeated && !skipping) out += "*\n";
        skipping = repeated;
    }
    return out;
}

}  // namespace trelmctl
