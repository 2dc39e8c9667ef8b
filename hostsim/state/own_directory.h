// own_directory.h - safe file operations in directories that hostile users of the machine can change. Each
// level is opened without following links and must belong to the caller. Everything is done relative to the
// open descriptor, so a directory that is swapped has no effect.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace hostsim {

// Paths within the directory begin with a slash. Calls throw std::system_error, or std::runtime_error for a
// link and for what another user owns or may write to. A sticky directory may be writable by others: they
// cannot rename or remove what the caller has in it.
class OwnDirectory {
  public:
    explicit OwnDirectory(const std::filesystem::path& path);
    // `name` relative to the descriptor `parent`. Messages show `path`.
    OwnDirectory(int parent, const std::string& name, std::filesystem::path path);

    const std::filesystem::path& path() const { return path_; }
    int descriptor() const { return fd_.get(); }

    OwnDirectory directory(std::string_view path) const;
    // Creates the missing levels of `path`: the last with `mode`, the others with 0755.
    OwnDirectory make_directory(std::string_view path, mode_t mode = 0755) const;
    // Opens a regular file that the caller owns and that has no second name. A new file gets mode 0600.
    Descriptor open_file(std::string_view path, int flags) const;
    // The text of a file; empty if it cannot be read.
    std::string text(std::string_view path) const noexcept;
    // Writes a draft, whose name is `draft` and the thread id, and renames it to `path`.
    void replace_file(std::string_view path, std::string_view draft, std::string_view text) const;
    // Makes a link or replaces what has its name, so that `path` is never missing meanwhile.
    void replace_link(std::string_view path, std::string_view draft, const std::string& target) const;
    std::vector<std::string> names() const;

    // True if something was removed. A directory must be empty.
    bool remove_file(std::string_view path) const noexcept;
    bool remove_directory(std::string_view path) const noexcept;
    // Removes the directory at `path` and its parents, up to the first that is not empty.
    void remove_empty(std::string_view path) const noexcept;
    // Removes everything in the directory at `path` except directories.
    void remove_files(std::string_view path) const noexcept;
    // Removes everything below, except on other file systems.
    void remove_contents() const noexcept;

  private:
    // The directory of `path`, and its name there.
    struct Entry;
    Entry entry(std::string_view path) const;
    static void rename(const Entry& from, const Entry& to);

    Descriptor fd_;
    std::filesystem::path path_;
};

// The names in a directory, without "." and "..". Throws std::system_error.
std::vector<std::string> names_in(int directory, const std::filesystem::path& path);

}  // namespace hostsim
