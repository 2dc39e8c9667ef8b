// path_map.h - maps paths of a program to paths below the root of the simulated host.
#pragma once

#include <climits>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

enum class PathKind {
    machine,      // the path is the machine's own and is used as it is
    files,        // in the host's "/tmp" or "/var/tmp"
    node,         // the legacy driver's node
    nodes,        // the directory that the node is in, or a name in it that is not the node
    link_states,  // the directory of the legacy driver's link-state files, or a name in it
};

using PathBuffer = char[PATH_MAX + 1];

// Classifies `path`. For every kind but `machine`, `mapped` is the path below `root`, cut to PATH_MAX
// characters if it is longer; system calls refuse that as too long. Paths below `root` or one of `passed`,
// and paths that lead to these, are the machine's. So are relative paths: chdir has been redirected before.
PathKind map_path(const char* path, std::string_view root, std::span<const std::string> passed,
                  PathBuffer& mapped) noexcept;

// The reverse: the path without `root` if programs of the host use it so, else `path` itself. The result is a
// suffix of `path`.
std::string_view seen_path(std::string_view path, std::string_view root) noexcept;

}  // namespace hostsim
