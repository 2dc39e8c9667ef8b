#include "attach.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <vector>

#include "host.h"
#include "own_calls.h"
#include "simulator_paths.h"
#include "state.h"
#include "texts.h"

namespace hostsim {
namespace {

constexpr int kCannotAttach = 125;

// Never destroyed: programs use files and start others until they exit.
constinit std::atomic<const HostVariables*> attached_variables = nullptr;

std::string value(const char* name) {
    const char* text = std::getenv(name);
    return text == nullptr ? "" : text;
}

const HostVariables* read_variables() {
    auto* result = new HostVariables;
    size_t next = 0;
    for (const char* name : {"LD_PRELOAD", kRootVariable, kPassedVariable})
        result->entries[next++] = std::string(name) + "=" + value(name);
    result->preload = value("LD_PRELOAD");
    return result;
}

// The launcher, which is also the listing, always runs on the machine: it starts a host of its own.
bool is_simulators_own() {
    std::error_code error;
    return std::filesystem::equivalent("/proc/self/exe", launcher_path(), error);
}

// Before main: the process belongs to the host from its start.
[[gnu::constructor]] void attach_to_launched_host() {
    const OwnCalls own;
    const std::string root = value(kRootVariable);
    if (root.empty() || is_simulators_own()) return;
    try {
        // Released: it lives as long as the process.
        [[maybe_unused]] const State* const state =
            State::attach(root, split(value(kPassedVariable), "\n")).release();
        attached_variables.store(read_variables());
    } catch (const std::exception& error) {
        // The process must not go on: it would use the machine's own files.
        std::fprintf(stderr,
                     "trelm-hostsim: this process was started on the simulated host at %s, which has ended "
                     "(%s); start it "
                     "again with trelm-hostsim run\n",
                     root.c_str(), error.what());
        _exit(kCannotAttach);
    }
}

}  // namespace

const HostVariables* host_variables() noexcept { return attached_variables.load(std::memory_order_acquire); }

void restore_environment() noexcept {
    const HostVariables* host = host_variables();
    if (host == nullptr) return;
    for (const std::string& entry : host->entries) {
        const size_t name = entry.find('=');
        setenv(entry.substr(0, name).c_str(), entry.c_str() + name + 1, 0);
    }
}

}  // namespace hostsim
