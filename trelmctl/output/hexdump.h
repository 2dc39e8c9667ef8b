// hexdump.h - a hexadecimal dump: offset, sixteen bytes (eight on a narrow terminal), and the same bytes as characters.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace trelmctl {

std::string hexdump(std::span<const uint8_t> bytes, std::size_t columns);

}  // namespace trelmctl
