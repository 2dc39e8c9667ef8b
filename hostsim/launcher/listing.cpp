#include "listing.h"

#include <fmt/format.h>
#include <sys/auxv.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "host_processes.h"
#include "root_layout.h"
#include "state.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kRow = "{:<11} {:<28} {:<10} {:>4}   {}\n";

std::string library_of(pid_t process) {
    std::string library;
    for (const std::string& path : mapped_paths(process))
        if (fs::path(path).filename().string().starts_with("libtrelm.so")) library = path;
    return library;
}

std::string process_name(pid_t process) {
    std::string name;
    std::getline(std::ifstream(fs::path("/proc") / std::to_string(process) / "comm"), name);
    return name;
}

}  // namespace

fs::path listed_root() {
    // The path that the program was started by, with symbolic links unresolved.
    const auto* started_as = reinterpret_cast<const char*>(getauxval(AT_EXECFN));
    const fs::path path = started_as == nullptr ? "" : started_as;
    if (path.filename() == "lsof" && path.parent_path().filename() == "bin") {
        std::error_code error;
        fs::path root = fs::canonical(path.parent_path() / ".." / "..", error);
        if (!error && fs::exists(root.string() + layout::kState)) return root;
    }
    const char* root = std::getenv(kRootVariable);
    return root == nullptr ? "" : root;
}

void list_processes(const fs::path& root, std::ostream& out) {
    out << fmt::format(kRow, "Cartel", "World name", "Type", "fd", "Description");
    for (const pid_t process : processes_of_host(root)) {
        const std::string library = library_of(process);
        if (library.empty()) continue;
        for (const char* type : {"text", "data"})
            out << fmt::format(kRow, process, process_name(process), type, -1, library);
    }
}

}  // namespace hostsim
