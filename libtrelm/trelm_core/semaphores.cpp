// System V semaphores: sets of one, 1 when free and 0 when held. Holds carry SEM_UNDO, so a process that is killed lets go.
//
// A set is created and given its first value in two steps. Only its creator does the second step; should the creator be
// killed between the two, whoever finds the set in that state and has waited a short time does it instead. Both look at the
// set again under a lock, so that no two ever do.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstdlib>
#include <ctime>

#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_owners.h"

int32_t trelm_dbg_sem_id = -1;
const key_t trelm_dbg_semkey = 0x373;

namespace {

constexpr int kPermissions = 0644;
constexpr int kCreateTries = 16;
constexpr int kNapMilliseconds = 2;
constexpr int kPatienceNaps = 100;  // how long a set may stay without its first value

union Argument {
    int value;
    semid_ds* status;
};

bool has_first_value(int32_t sem_id) {
    semid_ds status;
    Argument argument = {.status = &status};
    if (semctl(sem_id, 0, IPC_STAT, argument) != 0) return true;
    return status.sem_otime != 0 || semctl(sem_id, 0, GETVAL) != 0;
}

void nap() {
    timespec interval = {0, kNapMilliseconds * 1000000L};
    nanosleep(&interval, nullptr);
}

// A lock that processes of this library share while they look at a set and set it free. Where it cannot be had in a
// reasonable time, things go on without it: it only closes the gap between the look and the deed.
class InitialisationLock {
  public:
    InitialisationLock() : directory_(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        for (int naps = 0; directory_ && flock(directory_.get(), LOCK_EX | LOCK_NB) != 0 && naps < kPatienceNaps; ++naps) {
            nap();
        }
    }

  private:
    trelm::Descriptor directory_;  // closing it lets go
};

bool set_free_if_never_used(int32_t sem_id) {
    if (has_first_value(sem_id)) return true;
    InitialisationLock lock;
    if (has_first_value(sem_id)) return true;
    Argument argument = {.value = 1};
    return semctl(sem_id, 0, SETVAL, argument) == 0;
}

// Another library's or program's set under our key is not ours to use.
bool is_ours(int32_t sem_id) {
    semid_ds status;
    Argument argument = {.status = &status};
    if (semctl(sem_id, 0, IPC_STAT, argument) != 0) return false;
    if (status.sem_nsems == 1 && semctl(sem_id, 0, GETVAL) <= 1) return true;
    errno = EEXIST;
    return false;
}

int32_t open_set(key_t key) {
    int32_t sem_id = semget(key, 1, IPC_EXCL | kPermissions);
    if (sem_id == -1) return -1;
    if (!is_ours(sem_id)) return -1;
    for (int naps = 0; naps < kPatienceNaps && !has_first_value(sem_id); ++naps) nap();
    return set_free_if_never_used(sem_id) ? sem_id : -1;
}

int32_t create_set(key_t key) {
    int32_t sem_id = semget(key, 1, IPC_CREAT | IPC_EXCL | kPermissions);
    if (sem_id == -1 || set_free_if_never_used(sem_id)) return sem_id;
    trelm::ErrnoKeeper keep;
    trelm::sem_del(sem_id);
    return -1;
}

int operate(const char* func, int32_t sem_id, short operation, const char* warning) {
    sembuf step = {0, operation, SEM_UNDO};
    int result;
    do {
        result = semop(sem_id, &step, 1);
    } while (result == -1 && errno == EINTR);
    // The log waits on its own semaphore: that one's failures cannot be written there.
    if (result == -1 && sem_id != trelm_dbg_sem_id) trelm::error(func, {{warning, errno, 16}});
    return result;
}

}  // namespace

int32_t trelm::sem_get(key_t key) {
    // Between a failed open and a failed creation another process may have created or removed the set.
    for (int tries = 0; tries < kCreateTries; ++tries) {
        int32_t sem_id = open_set(key);
        if (sem_id != -1) return sem_id;
        if (errno == EEXIST) return -1;
        sem_id = create_set(key);
        if (sem_id != -1) return sem_id;
        if (errno != EEXIST) return -1;
    }
    return -1;
}

int trelm::sem_del(int32_t sem_id) { return semctl(sem_id, 0, IPC_RMID); }

int trelm_sem_wait(int32_t sem_id) {
    return operate(__func__, sem_id, -1, ":libtrelm: WARNING - semaphore wait operation failed. errno=");
}

int trelm_sem_signal(int32_t sem_id) {
    return operate(__func__, sem_id, 1, ":libtrelm: WARNING - semaphore signal operation failed. errno=");
}

void trelm_set_debug_level(void) {
    const char* flags = getenv("TRELM_API_DEBUG");
    if (!flags) return;
    trelm_debug = static_cast<uint32_t>(strtol(flags, nullptr, 16));
    if (trelm_debug && trelm_dbg_sem_id == -1) trelm_dbg_sem_id = trelm::sem_get(trelm_dbg_semkey);
}
