// state.h - what all processes of one simulated host share while it runs: the directory under which its files
// lie and a small file mapped by every one of them, with the host's identity, named counters and the
// semaphore keys in use.
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

namespace hostsim {

class Root;
struct SharedState;  // the mapped file
struct Unmap {
    void operator()(SharedState* shared) const noexcept;
};
using MappedState = std::unique_ptr<SharedState, Unmap>;

// Environment variables that take a process onto a launched host: the host's root,
inline constexpr const char* kRootVariable = "TRELM_HOSTSIM_ROOT";
// and directories of the machine that stay visible to a launched host's programs, one a line.
inline constexpr const char* kPassedVariable = "TRELM_HOSTSIM_PASS";

// A process has at most one State, the current one; a second in the same process takes its place until it
// goes.
class HOSTSIM_API State {
  public:
    // A host of this process alone (and of its forks): a new root in the directory for temporary files. The
    // root and the host's semaphores go with the object, in the process that made it. std::system_error when
    // it cannot be made.
    static std::unique_ptr<State> temporary();

    // The running host whose root this is. std::system_error when none runs there. In a process that the
    // launcher started the preloaded object has attached before main, and current() is that State.
    static std::unique_ptr<State> attach(const std::filesystem::path& root,
                                         std::vector<std::string> passed = {});

    // Of this process; null where no host is active. Safe to ask at any time, by interposers above all.
    static State* current() noexcept;

    State(const State&) = delete;
    State& operator=(const State&) = delete;
    ~State();

    // Absolute, no symbolic links, no slash at its end.
    const std::string& root() const noexcept { return root_; }
    // Directories below "/tmp" and "/var/tmp" that are the machine's own and stay visible.
    const std::vector<std::string>& passed() const noexcept { return passed_; }
    uint64_t host_id() const noexcept;  // random, never 0
    std::string host_file() const;      // of a launcher's host
    // Time since the host started, the same in all its processes.
    std::chrono::nanoseconds age() const noexcept;

    // A counter that all processes of the host share; 0 at the start of the host. std::length_error when
    // there are more names than the shared file has room for (16384).
    std::atomic<uint64_t>& counter(std::string_view name);

    // The machine's key for a semaphore set of this host, remembered so that cleaning removes the set; -1
    // when the host has used more keys than the shared file has room for (4096).
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
