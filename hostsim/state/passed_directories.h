// passed_directories.h - directories of the machine that stay visible although the host's own "/tmp" or
// "/var/tmp" would hide them: where programs are started, what their arguments name, where the simulator
// lies.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace hostsim {

// Whether a host's own "/tmp" or "/var/tmp" hides it.
bool is_hidden(const std::filesystem::path& directory);

class PassedDirectories {
  public:
    // Adds the path as given and with links resolved, if it would be hidden.
    void add(const std::filesystem::path& directory);
    // Adds a single file, which may lie in "/tmp" itself.
    void add_file(const std::filesystem::path& file);
    void add_working_directory();
    const std::vector<std::string>& directories() const { return directories_; }

  private:
    void add_forms(const std::filesystem::path& place);

    std::vector<std::string> directories_;
};

}  // namespace hostsim
