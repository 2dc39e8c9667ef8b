// hexdump.h - a hexadecimal dump: offset, sixteen bytes, and the same bytes as characters.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace trelmctl {

std::string hexdump(std::span<const uint8_t> bytes);

}  // namespace trelmctl
