// root.h - the directory under which a simulated host lies: who may use it as one, who runs a host there, and
// what is removed when. Several launchers may run commands on one host at once: the first makes it, each takes
// part, the last one ends it. Locks are the kernel's, so a killed launcher leaves none behind.
//
// A root is empty or does not exist when its first host comes, and bears a mark from then on. It belongs to the
// caller, who alone may write to it. Only what a host itself made is ever removed, but for a temporary root,
// which is made for one host and goes with it.
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

// What was left of a host whose processes were killed.
struct Remains {
    std::filesystem::path root;
    size_t semaphore_sets;
};

class Root {
  public:
    // A new directory among the temporary files, where what killed hosts left is removed first.
    static std::unique_ptr<Root> make_temporary();
    // The directory that a user names, made if it is not there. std::runtime_error where it cannot be a root.
    static std::unique_ptr<Root> open(const std::filesystem::path& given);
    Root(const Root&) = delete;
    Root& operator=(const Root&) = delete;
    // Leaves the host in the process that entered it. A root that no host ever ran at goes.
    ~Root();

    // Takes part in the host that `host_file` describes, making it where no one else runs it.
    // std::runtime_error where another host runs here, std::system_error where nothing can be made.
    void enter(const std::string& host_file);
    // Gives the part back and ends the host if it was the last. To be called by one process of those that
    // share the part through fork, when no command runs any more.
    void leave() noexcept;
    // Another of those processes will leave, not the one whose object this is.
    void hand_over() noexcept { owner_ = 0; }

    // Absolute, no symbolic links, no slash at its end.
    const std::filesystem::path& path() const { return directory_.path(); }
    const OwnDirectory& files() const { return directory_; }
    // Those that `leave` needs.
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
    bool made_;                  // by this object
    bool is_temporary_ = false;  // made for one host
    bool blank_;                 // no host ran here before
    bool begun_ = false;         // this object makes, or made, the host
    bool entered_ = false;
    Descriptor turn_;   // held while a host is made or ended
    Descriptor users_;  // shared by all who run the host
    pid_t owner_;
};

// Remove what killed hosts left: all of it in the directory for temporary files; at a root that a user names.
// std::runtime_error where that is no root, or where a host runs.
std::vector<Remains> clear_temporary_roots();
std::optional<Remains> clear_root(const std::filesystem::path& given);

}  // namespace hostsim
