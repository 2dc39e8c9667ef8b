// The exported semaphore operations. The failures of the log's own semaphore are not written to the log.

#include "semaphores.h"

#include <cerrno>

#include "semaphore_set.h"
#include "trelm_dbg.h"

key_t trelm_db_semkey = 0x32C;
int32_t trelm_db_sem_id = -1;

namespace {

trelm::detail::KeptHold kept_database_hold;

// Holds are recorded only for the two sets of the library.
template <class Operate>
int operate(const char* func, int32_t sem_id, const char* warning, Operate operation) {
    const bool logs_own = sem_id != -1 && sem_id == trelm::detail::debug_semaphore();
    trelm::detail::KeptHold none;
    const int result = operation(sem_id, sem_id == trelm_db_sem_id ? kept_database_hold
                                         : logs_own                ? trelm::detail::kept_log_hold
                                                                   : none);
    if (result == -1 && !logs_own) trelm::detail::error(func, trelm::detail::Piece(warning, errno, 16));
    return result;
}

}  // namespace

int trelm_sem_wait(int32_t sem_id) {
    return operate(__func__, sem_id,
                   ":libtrelm: WARNING - semaphore wait operation failed. errno=", trelm::detail::sem_take);
}

int trelm_sem_signal(int32_t sem_id) {
    return operate(__func__, sem_id, ":libtrelm: WARNING - semaphore signal operation failed. errno=",
                   trelm::detail::sem_release);
}

int trelm::detail::remove_database_semaphore() { return sem_remove(trelm_db_sem_id, kept_database_hold); }
