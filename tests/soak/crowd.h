// crowd.h - what the processes of a crowd share to watch each other: who is inside the guarded region, who
// holds which slot, and who is about to be killed. All checks are made by the processes themselves at the
// library's own calls, where the guard says who may be there; none depends on how fast anything is.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace trelm::soak {

inline constexpr size_t kSlots = 8;
inline constexpr size_t kMostProcesses = size_t{1} << 20;
inline constexpr size_t kMostSets = size_t{1} << 16;

// Processes are numbered from 1 as they are born; 0 is nobody.
struct Crowd {
    std::atomic<uint32_t> inside;           // who is in the region that the database's semaphore guards
    std::atomic<uint32_t> holders[kSlots];  // who has the slot to itself
    // Slots whose marks someone in the region is about to take off, as bits. Should that process be killed
    // there, nobody knows whether it still did, and the next one to see the marks believes them.
    std::atomic<uint32_t> doubtful;
    std::atomic<bool> gone[kMostProcesses];  // killed, or to be killed the next moment
    std::atomic<int32_t> valued[kMostSets];  // semaphore sets that got their first value, as id + 1
    std::atomic<bool> removing;              // a process that dawdles is about to remove the semaphore
    std::atomic<uint64_t> entries;           // into the region
    std::atomic<uint64_t> rounds;            // of load, work and free
    std::atomic<uint64_t> killed_inside;     // processes that were killed in the region
    std::atomic<uint64_t> resets;            // of all slots, because none was free
    std::atomic<int64_t> killed_at;     // when the last was killed in the region; 0: someone entered since
    std::atomic<int64_t> longest_wait;  // from such a kill to the next entry, in nanoseconds
    std::atomic<uint64_t> failures;
};

extern Crowd* crowd;

// Makes the shared memory. Before any process of the crowd.
void make_crowd();
// Nobody is left: nobody is inside and nobody holds a slot.
void forget_all_processes();

// Says what went wrong and counts it. Nothing that a process says which is about to be killed counts.
[[gnu::format(printf, 1, 2)]] void fail(const char* format, ...);

struct User;

// In a new process: takes its number, and the library as it was just loaded.
void join_crowd(const User& user, const uint8_t* library_instance);

int64_t now();

}  // namespace trelm::soak
