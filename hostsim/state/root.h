// root.h - the root directory of a simulated host: which directories are accepted, who runs a host there, and
// what is removed when. Several launchers may run commands on one host at once: the first creates the host,
// each holds a shared lock, the last one ends the host. The kernel releases the locks of a killed launcher.
//
// A root is new or empty at first and carries a mark from then on. The caller owns it, and nobody else may
// write to it. Only files that a host made are removed, except in a temporary root: it is made for one host
// and is removed with it.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "own_directory.h"

namespace hostsim {

// The remains of a killed host that were removed.
struct Remains {
    std::filesystem::path root;
    size_t semaphore_sets;
};

class Root {
  public:
    // Creates a directory among the temporary files, after removing the roots of killed hosts there.
    static std::unique_ptr<Root> make_temporary();
    // Opens or creates the directory that a user named. std::runtime_error if it is not acceptable as a root.
    static std::unique_ptr<Root> open(const std::filesystem::path& given);
    Root(const Root&) = delete;
    Root& operator=(const Root&) = delete;
    // Leaves the host, in the process that entered it. Removes a root that this object created and no host
    // used.
    ~Root();

    // Joins the host that `host_file` describes, or creates it if nobody runs it. std::runtime_error if
    // another host runs here, std::system_error if the host cannot be created.
    void enter(const std::string& host_file);
    // Releases the lock, and ends the host if nobody else holds it. Processes share the lock through fork:
    // only one of them may call this, when no command runs any more.
    void leave() noexcept;
    // Another of those processes leaves, so the destructor does not.
    void hand_over() noexcept { owner_ = 0; }

    // Absolute, no symbolic links, no slash at its end.
    const std::filesystem::path& path() const { return directory_.path(); }
    const OwnDirectory& files() const { return directory_; }
    // The descriptors that leave() needs.
    std::array<int, 4> descriptors() const;

  private:
    friend std::vector<Remains> clear_temporary_roots();
    friend std::optional<Remains> clear_root(const std::filesystem::path& given);

    Root(Descriptor parent, std::string name, const std::filesystem::path& path, bool made);
    static std::unique_ptr<Root> find(const std::filesystem::path& given, bool make);
    static std::vector<Remains> sweep(const std::filesystem::path& directory);

    bool is_blank() const;
    std::string_view mark() const;
    void open_locks(int flags);
    bool is_unused(bool wait);
    void begin(const std::string& host_file);
    void join(const std::string& host_file) const;
    void lay_out() const;
    std::optional<size_t> end() const noexcept;
    void unmake() const noexcept;
    bool remove() const noexcept;

    Descriptor parent_;
    std::string name_;
    OwnDirectory directory_;
    bool made_;                  // this object created the directory
    bool is_temporary_ = false;  // created for one host
    bool blank_;                 // no host has run here
    bool begun_ = false;         // this object has started to create the host
    bool entered_ = false;
    Descriptor turn_;   // held while a host is created or ended
    Descriptor users_;  // shared by all launchers of the host
    pid_t owner_;
};

// Remove the remains of killed hosts: among the temporary files, or in a root that the user names.
// std::runtime_error if that is no root or a host runs there.
std::vector<Remains> clear_temporary_roots();
std::optional<Remains> clear_root(const std::filesystem::path& given);

}  // namespace hostsim
