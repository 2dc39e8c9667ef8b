// shared_state.h - the file that all processes of a host map: its layout, and how it is made, found and removed.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string_view>

#include "own_directory.h"
#include "state.h"

namespace hostsim {

struct SharedCounter {
    std::atomic<uint64_t> name;  // hash, 0: free
    std::atomic<uint64_t> value;
};

// All atomics: no process may leave the others waiting, however it ends.
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

// The mapped file of the host at `root`. std::exception where there is none, or one that is not the caller's.
MappedState map_state(const OwnDirectory& root);

// Makes the file, with all the room that it will ever need. std::system_error.
void create_state(const OwnDirectory& root, std::string_view host_file);

// Removes the file and the host's semaphore sets; how many sets there were, nothing where there was no file.
std::optional<size_t> remove_state(const OwnDirectory& root) noexcept;

// The machine's key for a semaphore set that the host's programs know by `key`.
key_t machine_key(uint64_t host_id, key_t key) noexcept;

int64_t monotonic_now() noexcept;
uint64_t mix(uint64_t value) noexcept;

}  // namespace hostsim
