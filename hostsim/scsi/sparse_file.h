// sparse_file.h - reads and writes ranges of files. Ranges that do not exist read as zeros. Each call opens
// and closes the file: programs may close any descriptor and get its number for a file of their own, so no
// descriptor is kept open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace hostsim {

// Both return the number of bytes moved before a failure; all of them if there was none.
size_t read_sparse(const std::string& path, uint64_t offset, std::span<uint8_t> data);
size_t write_sparse(const std::string& path, uint64_t offset, std::span<const uint8_t> data);

}  // namespace hostsim
