// file_text.h - the text of a file that a user named. It may be any kind of file.
#pragma once

#include <filesystem>
#include <string>

namespace hostsim {

// HostError if it is no regular file, is too large for a host file or cannot be read. Never waits for another
// process.
std::string file_text(const std::filesystem::path& path);

}  // namespace hostsim
