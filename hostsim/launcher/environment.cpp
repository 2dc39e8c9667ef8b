#include "environment.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "root_layout.h"
#include "simulator_paths.h"
#include "state.h"
#include "texts.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPreloadSeparators = ": ";

bool can_be_listed(const std::string& path) {
    return path.find_first_of(kPreloadSeparators) == std::string::npos;
}

// A path of the preload object that LD_PRELOAD can hold.
std::string preload_object(const Root& root) {
    std::string object = preload_path();
    if (object.empty())
        throw std::runtime_error("libtrelm-hostsim.so is not in its place relative to " +
                                 own_object().string() +
                                 "; build the target hostsim or install the whole simulator");
    if (can_be_listed(object)) return object;
    std::string link = root.path().string() + layout::kPreload;
    if (!can_be_listed(link))
        throw std::runtime_error(link +
                                 ": the dynamic linker cannot preload an object with a space or colon in its "
                                 "path, and the simulator's own path has one too; choose another --root");
    root.files().replace_link(layout::kPreload, layout::kDraft, object);
    return link;
}

std::string preload_list(const Root& root) {
    std::vector<std::string> objects = split(HOSTSIM_SANITIZER_RUNTIMES, ":");
    objects.push_back(preload_object(root));
    for (const std::string& other : split(variable("LD_PRELOAD"), kPreloadSeparators))
        if (std::find(objects.begin(), objects.end(), other) == objects.end()) objects.push_back(other);
    return join(objects, ":");
}

// The directory of the launcher. trelmctl is there too, and programs of this directory are found by name.
std::string programs_directory(const Root& root) {
    std::string directory = launcher_path().parent_path();
    if (directory.find(':') == std::string::npos) return directory;
    root.files().replace_link(layout::kPrograms, layout::kDraft, directory);
    return root.path().string() + layout::kPrograms;
}

std::string search_path(const Root& root) {
    std::vector<std::string> directories{root.path().string() + layout::kCommands};
    for (std::string& directory : machines_search_path()) directories.push_back(std::move(directory));
    if (directories.size() == 1) directories.insert(directories.end(), {"/usr/bin", "/bin"});
    const std::string own = programs_directory(root);
    if (std::find(directories.begin(), directories.end(), own) == directories.end())
        directories.push_back(own);
    return join(directories, ":");
}

class Environment {
  public:
    Environment() {
        for (char** entry = environ; *entry != nullptr; ++entry) entries_.emplace_back(*entry);
    }
    void remove(std::string_view name) {
        std::erase_if(entries_, [name](std::string_view entry) {
            return entry.starts_with(name) && entry.substr(name.size()).starts_with('=');
        });
    }
    void set(const std::string& name, const std::string& value) {
        remove(name);
        entries_.push_back(name + "=" + value);
    }
    std::vector<std::string> entries() && { return std::move(entries_); }

  private:
    std::vector<std::string> entries_;
};

}  // namespace

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view() : value;
}

std::vector<std::string> machines_search_path() {
    std::vector<std::string> directories = split(variable("PATH"), ":");
    std::erase_if(directories,
                  [](const std::string& directory) { return directory.ends_with(layout::kCommands); });
    return directories;
}

std::vector<std::string> environment_for(const Root& root, const PassedDirectories& passed) {
    Environment environment;
    environment.set("LD_PRELOAD", preload_list(root));
    environment.set("PATH", search_path(root));
    environment.set(kRootVariable, root.path().string());
    environment.set(kPassedVariable, join(passed.directories(), "\n"));
    // The directory does not exist on the host.
    if (is_hidden(std::string(variable("TMPDIR")))) environment.remove("TMPDIR");
    // Programs that were not built with the sanitizer do not free everything.
    if (std::strlen(HOSTSIM_SANITIZER_RUNTIMES) > 0 && variable("ASAN_OPTIONS").empty())
        environment.set("ASAN_OPTIONS", "detect_leaks=0");
    return std::move(environment).entries();
}

}  // namespace hostsim
