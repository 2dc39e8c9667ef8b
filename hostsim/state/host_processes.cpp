#include "host_processes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <stdexcept>

#include "root_layout.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

std::vector<pid_t> process_ids() {
    std::vector<pid_t> ids;
    std::error_code error;
    for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
        const std::string name = at->path().filename();
        pid_t id = 0;
        const auto parsed = std::from_chars(name.data(), name.data() + name.size(), id);
        if (parsed.ec == std::errc() && parsed.ptr == name.data() + name.size()) ids.push_back(id);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

}  // namespace

void require_proc() {
    if (access("/proc/self/exe", F_OK) == 0) return;
    throw std::runtime_error(
        "/proc is missing; the simulator finds its parts and the host's processes there. Mount it: "
        "mount -t proc proc /proc");
}

std::vector<std::string> mapped_paths(pid_t process) {
    const std::string directory = "/proc/" + std::to_string(process);
    struct stat status {};
    if (stat(directory.c_str(), &status) != 0 || status.st_uid != geteuid()) return {};
    std::vector<std::string> paths;
    std::ifstream maps(directory + "/maps");
    // The first slash in a line begins the path.
    for (std::string line; std::getline(maps, line);)
        if (const size_t path = line.find('/'); path != std::string::npos) paths.push_back(line.substr(path));
    return paths;
}

std::vector<pid_t> processes_of_host(const fs::path& root) {
    const std::string state_file = root.string() + layout::kState;
    std::vector<pid_t> ids = process_ids();
    std::erase_if(ids, [&](pid_t id) {
        const std::vector<std::string> paths = mapped_paths(id);
        return std::find(paths.begin(), paths.end(), state_file) == paths.end();
    });
    return ids;
}

}  // namespace hostsim
