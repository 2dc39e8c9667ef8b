// root_lock.h - who runs the host at a root. Several launchers may run commands on one host at once: the
// first makes it, each holds a part in it, the last one ends it. Locks are the kernel's, so a killed launcher
// leaves none behind.
#pragma once

#include <array>
#include <filesystem>
#include <string>

namespace hostsim {

class RootLock {
  public:
    // Takes part in the host that `host_file` describes, making it where no one else runs it.
    // std::runtime_error where another host runs at `root`, std::system_error where nothing can be made
    // there.
    RootLock(const std::filesystem::path& root, const std::string& host_file);
    ~RootLock();
    RootLock(const RootLock&) = delete;
    RootLock& operator=(const RootLock&) = delete;

    // Gives the part back and ends the host if it was the last. To be called by one process of those that
    // share the lock through fork, when no command runs any more.
    void leave() noexcept;

    std::array<int, 2> descriptors() const { return {turn_, users_}; }

  private:
    std::filesystem::path root_;
    int turn_ = -1;   // held while a host is made or ended
    int users_ = -1;  // shared by all who run the host
};

}  // namespace hostsim
