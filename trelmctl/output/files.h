// files.h - reads and writes files that the user names, each as a whole.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace trelmctl {

// The most bytes that one command may move, so that a typing error does not allocate gigabytes. Drivers may
// allow fewer.
inline constexpr uint32_t kMostData = 64u << 20;

// "-" is standard input. Throws CommandFailed, also if there are more than kMostData bytes.
std::vector<uint8_t> file_contents(const std::string& path);

// Throws CommandFailed.
void write_file(const std::string& path, std::span<const uint8_t> bytes);

}  // namespace trelmctl
