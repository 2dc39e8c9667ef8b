// state.h - what the processes of one simulated host share while it runs: its root directory, and a mapped
// file with the host's identity, named counters and semaphore keys.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "hostsim_api.h"
#include "mapped_state.h"

namespace hostsim {

class Root;

// Environment variables that attach a process to a launched host: the host's root,
inline constexpr const char* kRootVariable = "TRELM_HOSTSIM_ROOT";
// and the directories of the machine that stay visible, one a line.
inline constexpr const char* kPassedVariable = "TRELM_HOSTSIM_PASS";

// The latest State of a process is the current one. When it is destroyed, the one before is current again.
class HOSTSIM_API State {
  public:
    // Creates a host for this process and its forks, with a temporary root. In this process the destructor
    // removes the root and the host's semaphores. std::system_error if the host cannot be created.
    static std::unique_ptr<State> temporary();

    // Attaches to the host that runs at `root`. std::system_error if none does. The preload object calls it
    // before main in a process that the launcher started.
    static std::unique_ptr<State> attach(const std::filesystem::path& root,
                                         std::vector<std::string> passed = {});

    // The State of this process; null if no host is active. May be called at any time, also in signal
    // handlers.
    static State* current() noexcept;

    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State();

    // Absolute, no symbolic links, no slash at its end.
    const std::string& root() const noexcept { return root_; }
    // Directories below "/tmp" and "/var/tmp" that are the machine's own and stay visible.
    const std::vector<std::string>& passed() const noexcept { return passed_; }
    uint64_t host_id() const noexcept;  // random, never 0
    std::string host_file() const;      // empty for a temporary host
    // Time since the host started, the same in all its processes.
    std::chrono::nanoseconds age() const noexcept;

    // A counter that the host's processes share, 0 at the start of the host. std::length_error if the shared
    // file has no room for another name (16384).
    std::atomic<uint64_t>& counter(std::string_view name);

    // The machine's key for a semaphore set of this host. It is recorded, so that the set is removed when the
    // host ends. -1 if the shared file has no room for another key (4096).
    key_t semaphore_key(key_t key) noexcept;

  private:
    State(std::string root, std::vector<std::string> passed, MappedState shared, std::unique_ptr<Root> owned);

    std::string root_;
    std::vector<std::string> passed_;
    std::unique_ptr<Root> owned_;  // a temporary host's
    MappedState shared_;
    State* previous_;  // current before this one
};

}  // namespace hostsim
