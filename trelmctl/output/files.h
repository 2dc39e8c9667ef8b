// files.h - files that the user names, read and written whole.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace trelmctl {

// Bytes that one command may move, so that a slip of the keyboard does not ask for gigabytes. Drivers may
// allow fewer.
inline constexpr uint32_t kMostData = 64u << 20;

// "-" is standard input. Throws CommandFailed, also where there are more than kMostData bytes.
std::vector<uint8_t> file_contents(const std::string& path);

// Throws CommandFailed.
void write_file(const std::string& path, std::span<const uint8_t> bytes);

}  // namespace trelmctl
