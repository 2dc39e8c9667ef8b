// semaphore_set.h - System V semaphores: sets of one semaphore, whose value is 1 when free and 0 when held.
// Nothing here writes to the log, because the log uses a semaphore itself.
#pragma once

#include <sys/types.h>

#include <cstdint>

namespace trelm::detail {

// A set that this process could not release and therefore still holds. Waiting for it would be waiting for
// itself. A child process inherits the note but not the hold.
struct KeptHold {
    int32_t sem_id = -1;
    pid_t holder = 0;
};

// Whether this errno of a failed operation means that the set was removed.
bool is_gone(int error);

// The set of the key. It is created in the free state if there is none or if another user owns it. -1 if that
// fails.
int32_t sem_get(key_t key);
// Each returns 0, or -1 with errno. Callers that wait for a set and release it share one KeptHold for it.
int sem_take(int32_t sem_id, KeptHold& kept);
int sem_release(int32_t sem_id, KeptHold& kept);
int sem_remove(int32_t sem_id, KeptHold& kept);

}  // namespace trelm::detail
