// hexdump.h - bytes for people: offset, sixteen bytes in hexadecimal, the same as characters. Eight where the
// terminal is narrower.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace trelmctl {

std::string hexdump(std::span<const uint8_t> bytes, std::size_t columns);

}  // namespace trelmctl
