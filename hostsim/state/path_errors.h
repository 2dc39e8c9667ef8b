// path_errors.h - exceptions that name the path they are about.
#pragma once

#include <cerrno>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>

namespace hostsim {

// A call failed, and errno says why.
[[noreturn]] inline void fail(const std::filesystem::path& path) {
    throw std::system_error(errno, std::generic_category(), path.string());
}

// The calls work, but what is at the path must not be used.
[[noreturn]] inline void refuse(const std::filesystem::path& path, const std::string& reason) {
    throw std::runtime_error(path.string() + ": " + reason);
}

}  // namespace hostsim
