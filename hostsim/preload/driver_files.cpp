#include "driver_files.h"

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

#include "interpose.h"
#include "own_directory.h"
#include "root_layout.h"
#include "serving_host.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

void refresh_node(const std::string& root, NodeKind kind) {
    const bool is_there = fs::exists(fs::symlink_status(root + layout::kLegacyNode));
    const bool is_wanted = kind != NodeKind::missing;
    if (is_there == is_wanted) return;
    const OwnDirectory files(root);
    if (is_wanted)
        files.replace_file(layout::kLegacyNode, layout::kDraft, "");
    else
        files.remove_file(layout::kLegacyNode);
}

// The files that this process last found current. Adding or removing a file changes the time of the
// directory.
struct LinkStates {
    fs::path directory;
    std::vector<LinkStateFile> files;
    fs::file_time_type changed;

    bool operator==(const LinkStates&) const = default;
};
std::mutex current_mutex;
LinkStates current;

// Returns true if anything had to be changed.
bool replace_link_states(const OwnDirectory& root, const std::vector<LinkStateFile>& files) {
    const std::string directory = fmt::format("{}/", layout::kLinkStates);
    bool changed = false;
    for (const LinkStateFile& file : files) {
        if (root.text(directory + file.name) == file.text) continue;
        root.replace_file(directory + file.name, layout::kDraft, file.text);
        changed = true;
    }
    for (const std::string& name : root.directory(layout::kLinkStates).names()) {
        const auto has_name = [&name](const LinkStateFile& file) { return file.name == name; };
        if (std::any_of(files.begin(), files.end(), has_name)) continue;
        changed = root.remove_file(directory + name) || changed;
    }
    return changed;
}

// Called often: to find a port, a program reads all of these files.
void refresh_link_states(const std::string& root, const std::vector<LinkStateFile>& files) {
    const fs::path directory = root + layout::kLinkStates;
    const bool is_there = fs::exists(fs::symlink_status(directory));
    if (files.empty()) {
        if (!is_there) return;
        const OwnDirectory own(root);
        own.remove_files(layout::kLinkStates);
        own.remove_empty(layout::kLinkStates);
        return;
    }
    if (!is_there) OwnDirectory(root).make_directory(layout::kLinkStates);
    // try_to_lock: in a child forked while another thread holds the lock it would never be released.
    const std::unique_lock lock(current_mutex, std::try_to_lock);
    LinkStates now{directory, files, fs::last_write_time(directory)};
    if (lock && current == now) return;
    if (!replace_link_states(OwnDirectory(root), files) && lock) current = std::move(now);
}

}  // namespace

void refresh_driver_files(PathKind kind) noexcept {
    Host* host = serving_host();
    if (host == nullptr) return;
    const OwnCalls own;
    const KeepErrno keep;
    try {
        const std::string& root = host->state().root();
        if (kind == PathKind::link_states)
            refresh_link_states(root, host->link_state_files());
        else
            refresh_node(root, host->legacy_node());
    } catch (const std::exception&) {
        // The root is not writable, or another process is updating it. The program gets the present files.
    }
}

}  // namespace hostsim
