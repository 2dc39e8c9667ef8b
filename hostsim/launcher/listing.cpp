#include "listing.h"

#include <fmt/format.h>
#include <sys/auxv.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "state.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRow = "{:<11} {:<28} {:<10} {:>4}   {}\n";

// The path of a line of /proc/PID/maps: what follows its fifth field.
std::string_view mapped_path(std::string_view line) {
    const size_t at = line.find('/');
    return at == std::string_view::npos ? std::string_view() : line.substr(at);
}

// The library as the process has it mapped, where the process is one of the host's and has it.
std::optional<std::string> library_of(const fs::path& process, const std::string& state_file) {
    std::ifstream maps(process / "maps");
    std::string library;
    bool is_hosts = false;
    for (std::string line; std::getline(maps, line);) {
        const std::string_view path = mapped_path(line);
        is_hosts = is_hosts || path == state_file;
        const std::string_view name = path.substr(std::min(path.rfind('/') + 1, path.size()));
        if (name.starts_with("libtrelm.so")) library = path;
    }
    if (!is_hosts || library.empty()) return std::nullopt;
    return library;
}

std::string process_name(const fs::path& process) {
    std::string name;
    std::getline(std::ifstream(process / "comm"), name);
    return name;
}

std::vector<int> process_ids() {
    std::vector<int> ids;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        int id = 0;
        const auto parsed = std::from_chars(name.data(), name.data() + name.size(), id);
        if (parsed.ec == std::errc() && parsed.ptr == name.data() + name.size()) ids.push_back(id);
    }
    std::sort(ids.begin(), ids.end());
    return ids;
}

}  // namespace

fs::path listed_root() {
    // By what path the program was started, before any symbolic link was followed.
    const auto* started_as = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    const fs::path path = started_as == nullptr ? "" : started_as;
    if (path.filename() == "lsof" && path.parent_path().filename() == "bin") {
        std::error_code error;
        fs::path root = fs::canonical(path.parent_path() / ".." / "..", error);
        if (!error && fs::exists(root / ".hostsim" / "state")) return root;
    }
    const char* root = std::getenv(kRootVariable);
    return root == nullptr ? "" : root;
}

void list_processes(const fs::path& root, std::ostream& out) {
    const std::string state_file = (root / ".hostsim" / "state").string();
    out << fmt::format(kRow, "Cartel", "World name", "Type", "fd", "Description");
    for (const int id : process_ids()) {
        const fs::path process = fs::path("/proc") / std::to_string(id);
        const std::optional<std::string> library = library_of(process, state_file);
        if (!library) continue;
        for (const char* type : {"text", "data"})
            out << fmt::format(kRow, id, process_name(process), type, -1, *library);
    }
}

}  // namespace hostsim
