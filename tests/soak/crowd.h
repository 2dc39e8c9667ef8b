// crowd.h - what the processes of the soak share to watch each other: who is inside the guarded region, who
// holds which slot, and who is about to be killed. All checks are made by the processes themselves at the
// library's own calls, where the guard says who may be there; none depends on how fast anything is.
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
    std::atomic<uint64_t> slots_checked;     // just after they were taken
    std::atomic<int64_t> killed_at;     // when the last was killed in the region; 0: someone entered since
    std::atomic<int64_t> longest_wait;  // from such a kill to the next entry, in nanoseconds
    std::atomic<uint64_t> failures;
};
extern Crowd* const crowd;

// Nobody is left: nobody is inside and nobody holds a slot.
void forget_all_processes();

// Says what went wrong and counts it. Nothing that a process says which is about to be killed counts.
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
    uint64_t fatal_call = 0;  // its call from the library at which it kills itself; 0: none
    bool dawdles = false;     // before it removes the semaphore, until another waits for it
};

// In a new process: takes its number, and the library as it was just loaded.
void join_crowd(const User& user, const uint8_t* library_instance);

// In a new process: all its rounds, then its end.
[[noreturn]] void use_library(const User& user);

// In a new process: one load, and free where that worked. The exit status is 0 when loading was refused and
// `refused` says so, or worked and it does not.
[[noreturn]] void load_once(bool refused);

// Puts each of the things that others may have put where the library's shared file and semaphores belong
// there, has one process load the library, and says what went wrong. How many there were.
unsigned run_abuses();

}  // namespace trelm::soak
