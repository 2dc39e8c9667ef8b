// sparse_file.h - reads and writes ranges of files that need not exist: what is not in a file reads as zeros.
// Each call opens and closes the file. The calls run inside programs that may close any descriptor, so that a
// kept one could become the program's own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace hostsim {

// Both return how many bytes were moved before a failure; all of them when there was none.
size_t read_sparse(const std::string& path, uint64_t offset, std::span<uint8_t> data);
size_t write_sparse(const std::string& path, uint64_t offset, std::span<const uint8_t> data);

}  // namespace hostsim
