// crowd.h - data that the processes of the soak share: who is inside the guarded region, who holds which
// slot, and who is about to be killed. The processes make all checks themselves at calls of the library,
// where the guard decides who may be there. No check depends on timing.
#pragma once

#include <fmt/format.h>
#include <sys/types.h>

#include <atomic>

namespace trelm::soak {

inline constexpr char kSharedFile[] = "/tmp/trelm_shared.dat";  // of the simulated host
inline constexpr off_t kFileSize = 163840;
inline constexpr key_t kDatabaseKey = 0x32C;
inline constexpr size_t kSlots = 8;
inline constexpr size_t kMostProcesses = size_t{1} << 20;
inline constexpr size_t kMostSets = size_t{1} << 16;

// Processes are numbered from 1 in the order of their creation; 0 is none.
struct Crowd {
    std::atomic<uint32_t> inside;           // the process in the region that the database's semaphore guards
    std::atomic<uint32_t> holders[kSlots];  // the process that owns the slot
    // Slots, as bits, whose marks a process in the region is about to clear. If that process is killed there,
    // the marks may or may not have been cleared, so the next process takes them as they are.
    std::atomic<uint32_t> doubtful;
    std::atomic<bool> gone[kMostProcesses];  // killed, or about to be killed
    std::atomic<int32_t> valued[kMostSets];  // semaphore sets that got their first value, as id + 1
    std::atomic<bool> removing;              // a slow process is about to remove the semaphore
    std::atomic<uint64_t> entries;           // into the region
    std::atomic<uint64_t> rounds;            // of load, work and free
    std::atomic<uint64_t> killed_inside;     // processes that were killed in the region
    std::atomic<uint64_t> resets;            // of all slots, because none was free
    std::atomic<uint64_t> slots_checked;     // just after they were taken
    std::atomic<int64_t> killed_at;     // time of the last kill in the region; 0: a process has entered since
    std::atomic<int64_t> longest_wait;  // from such a kill to the next entry, in nanoseconds
    std::atomic<uint64_t> failures;
};
extern Crowd* const crowd;

// Records that no process is left: the region is empty and all slots are free.
void forget_all_processes();

// Prints and counts a failure. Failures of a process that is about to be killed do not count.
void complain(const std::string& what);
template <typename... Values>
void fail(fmt::format_string<Values...> format, Values&&... values) {
    complain(fmt::format(format, std::forward<Values>(values)...));
}

int64_t now();  // in nanoseconds

// A process that uses the library.
struct User {
    uint32_t number = 0;
    unsigned rounds = 1;  // of load, work and free
    uint32_t log_flags = 0;
    uint64_t fatal_call = 0;  // the call at which it kills itself; 0: none
    bool dawdles = false;     // waits for another process before it removes the semaphore
};

// In a new process: takes its number and the state of a library that was just loaded.
void join_crowd(const User& user, const uint8_t* library_instance);

// In a new process: runs all rounds and ends.
[[noreturn]] void use_library(const User& user);

// In a new process: one load, and a free if that succeeded. The exit status is 0 if the load was refused
// exactly when `refused` says so.
[[noreturn]] void load_once(bool refused);

// Creates each of the hostile objects in turn, lets a process load the library, and reports failures. Returns
// the number of objects.
unsigned run_abuses();

}  // namespace trelm::soak
