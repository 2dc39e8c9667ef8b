// semaphore_set.h - System V semaphores: sets of one, 1 when free and 0 when held. Nothing here writes to the log, which
// has a semaphore itself.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace trelm::detail {

// A set that this process could not release. It still holds it, and to wait for it would be to wait for itself, for
// ever. A child process inherits the note but not the hold.
struct KeptHold {
    int32_t sem_id = -1;
    pid_t holder = 0;
};

// Whether an operation failed with that errno because the set was removed.
bool is_gone(int error);

// The set of the key, created free where there is none or another user's; -1 where it cannot be had.
int32_t sem_get(key_t key);
// Each returns 0, or -1 and errno. Who waits for a set and releases it keeps one note of a hold for it.
int sem_take(int32_t sem_id, KeptHold& kept);
int sem_release(int32_t sem_id, KeptHold& kept);
int sem_remove(int32_t sem_id, KeptHold& kept);

}  // namespace trelm::detail
