#include "driver_files.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "arguments.h"
#include "interpose.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

std::string content(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Whether the file was another, or none.
bool replace(const fs::path& root, const fs::path& path, const std::string& text) {
    if (fs::exists(path) && content(path) == text) return false;
    // A name of this thread's own, outside of every directory that is listed.
    const fs::path draft = root / ".hostsim" / ("draft-" + std::to_string(gettid()));
    std::ofstream(draft, std::ios::binary) << text;
    fs::rename(draft, path);
    return true;
}

void refresh_node(const fs::path& root, NodeKind kind) {
    const fs::path node = root / fs::path(kLegacyNodePath).relative_path();
    if (kind == NodeKind::missing)
        fs::remove(node);
    else if (!fs::exists(node))
        replace(root, node, "");
}

// What this process last found to be as it should. Whoever puts another file there changes the directory.
struct Found {
    fs::path directory;
    std::vector<LinkStateFile> files;
    fs::file_time_type changed;

    bool operator==(const Found&) const = default;
};
std::mutex found_mutex;
Found found;

bool replace_link_states(const fs::path& root, const fs::path& directory,
                         const std::vector<LinkStateFile>& files) {
    bool changed = false;
    for (const LinkStateFile& file : files)
        changed = replace(root, directory / file.name, file.text) || changed;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory)) {
        const bool wanted = std::any_of(files.begin(), files.end(), [&entry](const LinkStateFile& file) {
            return entry.path().filename() == file.name;
        });
        if (!wanted) changed = fs::remove(entry.path()) || changed;
    }
    return changed;
}

// A program reads many of these files in a row: a port is looked for in all of them.
void refresh_link_states(const fs::path& root, const std::vector<LinkStateFile>& files) {
    const fs::path directory = root / fs::path(kLinkStateDirectory).relative_path();
    if (files.empty()) {
        fs::remove_all(directory);
        return;
    }
    fs::create_directories(directory);
    // Not waited for: a child forked while another thread is here would find it locked for ever.
    const std::unique_lock lock(found_mutex, std::try_to_lock);
    Found now{directory, files, fs::last_write_time(directory)};
    if (lock && found == now) return;
    if (!replace_link_states(root, directory, files) && lock) found = std::move(now);
}

}  // namespace

void refresh_driver_files(Place place) noexcept {
    Host* host = serving_host();
    if (host == nullptr) return;
    const OwnCalls own;
    const KeepErrno keep;
    try {
        const fs::path root = host->state().root();
        if (place == Place::link_states)
            refresh_link_states(root, host->link_state_files());
        else
            refresh_node(root, host->legacy_node());
    } catch (const std::exception&) {
        // The root cannot be written, or another process did the same meanwhile: the program sees what is
        // there.
    }
}

}  // namespace hostsim
