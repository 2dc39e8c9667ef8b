// own_directory.h - safe work on directories of a machine whose other users are hostile. A directory is opened
// level by level without following a link, must be the caller's, and everything in it is reached from its
// descriptor: whoever swaps a directory or a file meanwhile does not lead the work elsewhere.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace hostsim {

// Paths within the directory begin with a slash. A call that returns nothing else throws std::system_error, or
// std::runtime_error for what is there but is not the caller's alone: a link, another user's, writable by
// others. Only a sticky directory may be writable by others, as they cannot move what the caller has in it.
class OwnDirectory {
  public:
    explicit OwnDirectory(const std::filesystem::path& path);
    // `name` in the directory that is open as `parent`. `path` is for messages.
    OwnDirectory(int parent, const std::string& name, std::filesystem::path path);

    const std::filesystem::path& path() const { return path_; }
    int descriptor() const { return fd_.get(); }

    OwnDirectory directory(std::string_view path) const;
    // Makes what is missing of `path`. The last directory gets `mode` if it is made, the others 0755.
    OwnDirectory make_directory(std::string_view path, mode_t mode = 0755) const;
    // A regular file of the caller's with one name. `flags` as for open; a new file gets mode 0600.
    Descriptor open_file(std::string_view path, int flags) const;
    // The text of a file; empty where it cannot be had.
    std::string text(std::string_view path) const noexcept;
    // Puts a file with `text` in place as a whole. The draft has a name that begins with `draft`.
    void replace_file(std::string_view path, std::string_view draft, std::string_view text) const;
    void make_link(std::string_view path, const std::string& target) const;
    std::vector<std::string> names() const;

    // Whether they removed something. A directory must be empty.
    bool remove_file(std::string_view path) const noexcept;
    bool remove_directory(std::string_view path) const noexcept;
    // The directory at `path` and those that lead to it, as far as they are empty.
    void remove_empty(std::string_view path) const noexcept;
    // Everything in the directory at `path` that is no directory itself.
    void remove_files(std::string_view path) const noexcept;
    // Removes everything within, but no other file system's.
    void remove_contents() const noexcept;

  private:
    // The directory that `path` lies in, and the name of `path` there.
    struct Entry;
    Entry entry(std::string_view path) const;

    Descriptor fd_;
    std::filesystem::path path_;
};

// The names in a directory but "." and "..". std::system_error.
std::vector<std::string> names_in(int directory, const std::filesystem::path& path);

}  // namespace hostsim
