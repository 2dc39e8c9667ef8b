// shared_state.h - the file that all processes of a host map: its layout, creation, mapping and removal.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string_view>

#include "mapped_state.h"
#include "own_directory.h"

namespace hostsim {

struct SharedCounter {
    std::atomic<uint64_t> name;  // hash, 0: free
    std::atomic<uint64_t> value;
};

// Atomics, no locks: a process that is killed must not block the others.
struct SharedState {
    static constexpr size_t kCounterSlots = 16384;
    static constexpr size_t kSemaphoreSlots = 4096;
    static constexpr uint64_t kSlotTaken = uint64_t{1} << 32;

    uint64_t magic;
    uint64_t host_id;
    int64_t started;  // nanoseconds of the machine's monotonic clock
    char host_file[4096];
    std::atomic<uint64_t> semaphores[kSemaphoreSlots];  // kSlotTaken and a key of the host's programs
    SharedCounter counters[kCounterSlots];
};
static_assert(std::atomic<uint64_t>::is_always_lock_free);

// Maps the file of the host at `root`. std::exception if there is none, or one that another user may write
// to.
MappedState map_state(const OwnDirectory& root);

// Creates the file with all its blocks allocated. std::system_error.
void create_state(const OwnDirectory& root, std::string_view host_file);

// Removes the file and the host's semaphore sets. Returns the number of sets, nothing if there was no file.
std::optional<size_t> remove_state(const OwnDirectory& root) noexcept;

// The machine's key of the semaphore set that programs of the host call `key`.
key_t machine_key(uint64_t host_id, key_t key) noexcept;

int64_t monotonic_now() noexcept;
uint64_t mix(uint64_t value) noexcept;

}  // namespace hostsim
