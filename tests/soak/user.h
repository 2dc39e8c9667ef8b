// user.h - one process that uses the library.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace trelm::soak {

inline constexpr char kSharedFile[] = "/tmp/trelm_shared.dat";  // of the simulated host
inline constexpr key_t kDatabaseKey = 0x32C;

struct User {
    uint32_t number = 0;
    unsigned rounds = 1;  // of load, work and free
    uint32_t log_flags = 0;
    uint64_t fatal_call = 0;  // its call from the library at which it kills itself; 0: none
    bool dawdles = false;     // before it removes the semaphore, until another waits for it
};

// In a new process: all its rounds, then its end.
[[noreturn]] void use_library(const User& user);

// In a new process: one load, and free where that worked. The exit status is 0 when loading was refused and
// `refused` says so, or worked and it does not.
[[noreturn]] void load_once(bool refused);

}  // namespace trelm::soak
