// passed_directories.h - the directories of the machine that stay visible on a simulated host although its
// own "/tmp" or "/var/tmp" would hide them: where its programs are started, what they are given, where the
// simulator lies.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace hostsim {

// Whether a host's own "/tmp" or "/var/tmp" hides it.
bool is_hidden(const std::filesystem::path& directory);

class PassedDirectories {
  public:
    // `directory` as it is called and as it is, where it is one that would be hidden.
    void add(const std::filesystem::path& directory);
    // A single file, which may lie in "/tmp" itself.
    void add_file(const std::filesystem::path& file);
    // The same as add for the working directory.
    void add_working_directory();
    const std::vector<std::string>& directories() const { return directories_; }

  private:
    void add_forms(const std::filesystem::path& place);

    std::vector<std::string> directories_;
};

}  // namespace hostsim
