// semaphores.h - the semaphore of the database, and waiting for and releasing a semaphore with a warning in
// the log on failure.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "trelm_exported.h"

extern "C" {

extern TRELM_EXPORTED key_t trelm_db_semkey;
extern TRELM_EXPORTED int32_t trelm_db_sem_id;  // of the shared database; -1 none

// Each returns 0, or -1 with errno.
TRELM_EXPORTED int trelm_sem_wait(int32_t sem_id);
TRELM_EXPORTED int trelm_sem_signal(int32_t sem_id);

}  // extern "C"

namespace trelm::detail {

// Removes the set of the database for every process. 0, or -1 with errno.
int remove_database_semaphore();

}  // namespace trelm::detail
