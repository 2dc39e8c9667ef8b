// semaphores.h - waiting for a semaphore and releasing it, with a warning in the log where that fails.
#pragma once

#include <cstdint>

#include "trelm_exported.h"

extern "C" {

// Each returns 0, or -1 and errno.
TRELM_EXPORTED int trelm_sem_wait(int32_t sem_id);
TRELM_EXPORTED int trelm_sem_signal(int32_t sem_id);

}  // extern "C"

namespace trelm::detail {

// Removes the database's set, for every process. 0, or -1 and errno.
int remove_database_semaphore();

}  // namespace trelm::detail
