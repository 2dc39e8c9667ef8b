// arguments.h - wrappers for the path arguments of interposed functions. Each lives until the call returns,
// preserves errno, and costs one test while no host is active.
#pragma once

#include "path_map.h"
#include "serving_host.h"

namespace hostsim {

// A path argument, redirected if it belongs to the host. Files that show the model are refreshed first.
class Path {
  public:
    explicit Path(const char* path) noexcept;
    Path(const Path&) = delete;
    Path& operator=(const Path&) = delete;

    operator const char*() const { return path_; }
    PathKind kind() const { return kind_; }

  protected:
    const char* path_;
    PathKind kind_ = PathKind::machine;
    PathBuffer mapped_;
};

// A Path for calls that open a file or read its attributes: they find a character device at the legacy
// driver's node. Calls that change the file reach a file of the root, never a device of the machine.
class Look : public Path {
  public:
    explicit Look(const char* path) noexcept;
    bool is_device() const { return device_; }

  private:
    bool device_ = false;
};

// A name template, redirected. What libc writes into its last component is copied to the program's text.
class Template {
  public:
    explicit Template(char* text) noexcept;
    ~Template();
    Template(const Template&) = delete;
    Template& operator=(const Template&) = delete;

    operator char*() { return is_mapped_ ? mapped_ : text_; }

  private:
    char* text_;
    bool is_mapped_ = false;
    PathBuffer mapped_;
};

// Replaces a path that libc returns with the one that programs of the host use, in place.
void show_path(char* path) noexcept;

}  // namespace hostsim
