#include "hexdump.h"

#include <fmt/format.h>

#include <algorithm>

namespace trelmctl {
namespace {

constexpr std::size_t kPerLine = 16;

std::string line(std::span<const uint8_t> bytes, std::size_t offset) {
    std::string out = fmt::format("{:08x} ", offset);
    for (std::size_t i = 0; i < kPerLine; ++i) {
        if (i % 8 == 0) out += ' ';
        out += i < bytes.size() ? fmt::format("{:02x} ", bytes[i]) : "   ";
    }
    out += " |";
    for (const uint8_t byte : bytes) out += byte >= 0x20 && byte < 0x7F ? static_cast<char>(byte) : '.';
    return out + "|\n";
}

}  // namespace

std::string hexdump(std::span<const uint8_t> bytes) {
    std::string out;
    bool skipping = false;
    for (std::size_t at = 0; at < bytes.size(); at += kPerLine) {
        const auto row = bytes.subspan(at, std::min(kPerLine, bytes.size() - at));
        // Repeated rows are replaced with a single star, as in other dumps. The last row is always shown.
        const bool repeated =
            at > 0 && at + kPerLine < bytes.size() &&
            std::equal(row.begin(), row.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at - kPerLine));
        if (!repeated) out += line(row, at);
        if (repeated && !skipping) out += "*\n";
        skipping = repeated;
    }
    return out;
}

}  // namespace trelmctl
