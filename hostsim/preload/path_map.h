// path_map.h - which of a program's paths belong to the simulated host, and where they lie below its root.
#pragma once

#include <climits>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

enum class Place {
    machine,      // the path is the machine's own and is used as it is
    files,        // in the host's "/tmp" or "/var/tmp"
    node,         // the legacy driver's node
    nodes,        // the directory that the node is in, or a name in it that is not the node
    link_states,  // the directory of the legacy driver's link-state files, or a name in it
};

using PathBuffer = char[PATH_MAX + 1];

// Tells where `path` belongs. For every place but `machine`, `mapped` is the path below `root`; one that is
// too long is cut to PATH_MAX characters, which every system call refuses as too long. A path below `root` or
// below one of `passed`, or leading to one of these, is the machine's, and so is a relative one: it starts
// where chdir led.
Place map_path(const char* path, std::string_view root, std::span<const std::string> passed,
               PathBuffer& mapped) noexcept;

// How the host's programs call a path of the machine: the path without `root` where it is a file of the
// host's, else the path itself. The result is the end of `path`.
std::string_view seen_path(std::string_view path, std::string_view root) noexcept;

}  // namespace hostsim
