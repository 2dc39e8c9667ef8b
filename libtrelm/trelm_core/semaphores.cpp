// System V semaphores: sets of one, 1 when free and 0 when held. Holds carry SEM_UNDO, so a process that is
// killed lets go.
//
// A set is created and given its first value in two steps. Only its creator does the second step; should the
// creator be killed between the two, whoever finds the set in that state and has waited a short time does it
// instead. Whoever does it looks at the set once more under a lock, so that a slow creator and a helper never
// both do.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

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

enum class FirstValue { kMissing, kGiven, kUnknown };

FirstValue first_value(int32_t sem_id) {
    semid_ds status = {};
    Argument argument = {.status = &status};
    if (semctl(sem_id, 0, IPC_STAT, argument) != 0) return FirstValue::kUnknown;
    const int value = semctl(sem_id, 0, GETVAL);
    if (value == -1) return FirstValue::kUnknown;
    const bool used = status.sem_otime != 0 || value != 0;
    return used ? FirstValue::kGiven : FirstValue::kMissing;
}

void nap() {
    timespec interval = {0, kNapMilliseconds * 1000000L};
    nanosleep(&interval, nullptr);
}

// A lock that processes of this library share while they look at a set and set it free. Where it cannot be
// had in a reasonable time, things go on without it: it only closes the gap between the look and the deed.
class InitialisationLock {
  public:
    InitialisationLock() : directory_(open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
        for (int naps = 0; directory_ && is_taken() && naps < kPatienceNaps; ++naps) nap();
    }

  private:
    bool is_taken() { return flock(directory_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

    trelm::detail::Descriptor directory_;  // closing it lets go
};

bool set_free(int32_t sem_id) {
    InitialisationLock lock;
    if (first_value(sem_id) == FirstValue::kGiven) return true;
    Argument argument = {.value = 1};
    return semctl(sem_id, 0, SETVAL, argument) == 0;
}

// A set of several semaphores under our key is another program's.
bool is_foreign(int32_t sem_id) {
    semid_ds status = {};
    Argument argument = {.status = &status};
    return semctl(sem_id, 0, IPC_STAT, argument) == 0 && status.sem_nsems != 1;
}

// A value above 1 lets several in at once; it comes of a release too many. What is above 1 is taken off in
// one step that works only while it is there.
void take_off_surplus(int32_t sem_id) {
    for (int value = semctl(sem_id, 0, GETVAL); value > 1; value = semctl(sem_id, 0, GETVAL)) {
        sembuf steps[] = {{0, static_cast<short>(-value), IPC_NOWAIT}, {0, 1, IPC_NOWAIT}};
        if (semop(sem_id, steps, 2) != 0 && errno != EAGAIN) return;
    }
}

int32_t open_set(key_t key) {
    const int32_t sem_id = semget(key, 1, IPC_EXCL | kPermissions);
    if (sem_id == -1) return -1;
    if (is_foreign(sem_id)) {
        errno = EEXIST;
        return -1;
    }
    for (int naps = 0; naps < kPatienceNaps && first_value(sem_id) == FirstValue::kMissing; ++naps) nap();
    if (first_value(sem_id) == FirstValue::kMissing && !set_free(sem_id)) return -1;
    take_off_surplus(sem_id);
    return sem_id;
}

int32_t create_set(key_t key) {
    const int32_t sem_id = semget(key, 1, IPC_CREAT | IPC_EXCL | kPermissions);
    if (sem_id == -1 || set_free(sem_id)) return sem_id;
    trelm::detail::ErrnoKeeper keep;
    trelm::detail::sem_del(sem_id);
    return -1;
}

// Sets that could not be let go of: this process holds them still, and to wait for one would be to wait for
// itself, for ever. It uses two sets at most.
int32_t kept_sets[2] = {-1, -1};

void keep(int32_t sem_id) { (kept_sets[0] == -1 ? kept_sets[0] : kept_sets[1]) = sem_id; }

// Whether a wait is granted because the set is held from before. Others may have removed it meanwhile, and in
// a forked child it is the parent's.
bool holds_still(int32_t sem_id) {
    for (int32_t& kept : kept_sets) {
        if (sem_id == -1 || kept != sem_id) continue;
        const int value = semctl(sem_id, 0, GETVAL);
        const int holder = semctl(sem_id, 0, GETPID);
        if (value == -1 || holder == -1) return false;
        kept = -1;
        return value == 0 && holder == getpid();
    }
    return false;
}

// An interrupted wait goes on: a host program's signals are none of the guarded region's business.
int operate(int32_t sem_id, short operation) {
    sembuf step = {0, operation, SEM_UNDO};
    int result;
    do {
        result = semop(sem_id, &step, 1);
    } while (result == -1 && errno == EINTR);
    return result;
}

int take(int32_t sem_id) { return holds_still(sem_id) ? 0 : operate(sem_id, -1); }

int let_go(int32_t sem_id) {
    const int result = operate(sem_id, 1);
    if (result == -1) keep(sem_id);
    return result;
}

// The failures of the log's own semaphore are not written to the log.
int warn_of_failure(const char* func, int32_t sem_id, int result, const char* warning) {
    const bool logs_own = sem_id != -1 && sem_id == trelm_dbg_sem_id;
    if (result == -1 && !logs_own) trelm::detail::error(func, trelm::detail::Piece(warning, errno, 16));
    return result;
}

}  // namespace

int32_t trelm::detail::sem_get(key_t key) {
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

int trelm::detail::sem_wait_unlogged(int32_t sem_id) { return take(sem_id); }

int trelm::detail::sem_signal_unlogged(int32_t sem_id) { return let_go(sem_id); }

int trelm::detail::sem_del(int32_t sem_id) { return semctl(sem_id, 0, IPC_RMID); }

int trelm_sem_wait(int32_t sem_id) {
    return warn_of_failure(__func__, sem_id, take(sem_id),
                           ":libtrelm: WARNING - semaphore wait operation failed. errno=");
}

int trelm_sem_signal(int32_t sem_id) {
    return warn_of_failure(__func__, sem_id, let_go(sem_id),
                           ":libtrelm: WARNING - semaphore signal operation failed. errno=");
}

void trelm_set_debug_level(void) {
    const char* flags = getenv("TRELM_API_DEBUG");
    if (!flags) return;
    trelm_debug = static_cast<uint32_t>(strtol(flags, nullptr, 16));
    if (trelm_debug && trelm_dbg_sem_id == -1) trelm_dbg_sem_id = trelm::detail::sem_get(trelm_dbg_semkey);
}
