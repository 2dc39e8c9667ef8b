// arguments.h - wrappers for the path arguments of interposed functions. Each lives until the call that it is
// an argument of has returned, leaves errno alone, and costs nothing but a test while no host is active.
#pragma once

#include "host.h"
#include "path_map.h"
#include "state.h"

namespace hostsim {

// The host of this process for a call by its program: null where none is active and for the simulator's own
// calls.
State* serving_state() noexcept;
Host* serving_host() noexcept;

// A path of the program's, redirected where it is the host's. Files that are made from the model are made
// anew first.
class Path {
  public:
    explicit Path(const char* path) noexcept;
    Path(const Path&) = delete;
    Path& operator=(const Path&) = delete;

    operator const char*() const { return path_; }
    Place place() const { return place_; }

  protected:
    const char* path_;
    Place place_ = Place::machine;
    PathBuffer mapped_;
};

// As Path, for calls that only look at a file or open it: the legacy driver's node is then a character
// device. Calls that change the file reach a file of the root instead, never a device of the machine.
class Look : public Path {
  public:
    explicit Look(const char* path) noexcept;
    bool is_device() const { return device_; }

  private:
    bool device_ = false;
};

// A name template, of which libc fills in the last part: what it wrote goes back to the program's own text.
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

// Turns a path that libc reports into the one that the host's programs know, in place.
void show_path(char* path) noexcept;

}  // namespace hostsim
