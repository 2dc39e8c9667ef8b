#include "path_map.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "root_layout.h"

namespace hostsim {
namespace {

struct Redirected {
    std::string_view directory;
    PathKind kind;
};
constexpr std::array<Redirected, 4> kRedirected{{
    {layout::kTmp, PathKind::files},
    {layout::kVarTmp, PathKind::files},
    {layout::kLinkStates, PathKind::link_states},
    {layout::kNodeDirectory, PathKind::nodes},
}};

bool is_below(std::string_view path, std::string_view directory) {
    return path.starts_with(directory) && (path.size() == directory.size() || path[directory.size()] == '/');
}

// Writes the absolute `path` without empty, "." and ".." components. Returns its length, 0 if it does not
// fit.
size_t normalise(const char* path, PathBuffer& out) {
    size_t length = 0;
    while (*path != 0) {
        while (*path == '/') ++path;
        const size_t size = std::strcspn(path, "/");
        const std::string_view component(path, size);
        path += size;
        if (component.empty() || component == ".") continue;
        if (component == "..") {
            while (length > 0 && out[--length] != '/') {
            }
            continue;
        }
        if (length + 1 + size > PATH_MAX) return 0;
        out[length++] = '/';
        std::memcpy(out + length, component.data(), size);
        length += size;
    }
    out[length] = 0;
    return length;
}

PathKind kind_of(std::string_view path) {
    if (path == layout::kLegacyNode) return PathKind::node;
    const auto* found = std::find_if(kRedirected.begin(), kRedirected.end(), [path](const Redirected& entry) {
        return is_below(path, entry.directory);
    });
    return found == kRedirected.end() ? PathKind::machine : found->kind;
}

// Parents of a machine's directory are the machine's too: programs may walk a path step by step.
bool leads_to(std::string_view path, std::string_view directory) {
    return is_below(directory, path) && path != layout::kTmp && path != layout::kVarTmp;
}

bool is_machines(std::string_view path, std::string_view root, std::span<const std::string> passed) {
    const auto is_passed = [path](std::string_view directory) {
        return is_below(path, directory) || leads_to(path, directory);
    };
    return is_below(path, root) || leads_to(path, root) ||
           std::any_of(passed.begin(), passed.end(), is_passed);
}

// With a slash at its end a path names a directory only.
bool names_directory(std::string_view path) { return path.ends_with("/") || path.ends_with("/."); }

}  // namespace

PathKind map_path(const char* path, std::string_view root, std::span<const std::string> passed,
                  PathBuffer& mapped) noexcept {
    if (path == nullptr || *path != '/') return PathKind::machine;
    const size_t length = normalise(path, mapped);
    const std::string_view wanted(mapped, length);
    const PathKind kind = kind_of(wanted);
    if (kind == PathKind::machine || (kind == PathKind::files && is_machines(wanted, root, passed)))
        return PathKind::machine;

    const bool slash = names_directory(path);
    const size_t prefix = std::min<size_t>(root.size(), PATH_MAX);
    const size_t rest = std::min<size_t>(length, PATH_MAX - prefix);
    std::memmove(mapped + prefix, mapped, rest);
    std::memcpy(mapped, root.data(), prefix);
    size_t end = prefix + rest;
    if (slash && end < PATH_MAX) mapped[end++] = '/';
    mapped[end] = 0;
    return kind;
}

std::string_view seen_path(std::string_view path, std::string_view root) noexcept {
    if (!path.starts_with(root)) return path;
    const std::string_view rest = path.substr(root.size());
    return !rest.empty() && kind_of(rest) != PathKind::machine ? rest : path;
}

}  // namespace hostsim
