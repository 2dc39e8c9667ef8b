// System V semaphores: sets of one, 1 when free and 0 when held. Holds carry SEM_UNDO, so a process that is
// killed lets go.
//
// A set is created and given its first value in two steps. Only its creator does the second step. If the creator is
// killed between the two, whoever finds the set in that state waits a short time and then does it instead. Both look at
// the set once more under a lock, so that a slow creator and a helper never both do it.
//
// Anyone can make a set under the keys. A set that another user made or owns is removed, or else not used.

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>

#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_system.h"

int32_t trelm_dbg_sem_id = -1;
key_t trelm_dbg_semkey = 0x373;

namespace {

constexpr int kPermissions = 0644;
constexpr int kTries = 16;
constexpr int kNapMilliseconds = 2;
constexpr int kPatienceNaps = 100;  // how long a set may stay without its first value

union Argument {
    int value;
    semid_ds* status;
};

enum class SetState {
    usable,
    never_valued,
    foreign,     // another user made it or owns it
    of_several,  // several semaphores: another program's
    gone,
    unknown,  // semctl() fails, so whether it will ever come free cannot be told
};

bool is_gone(int error) { return error == EIDRM || error == EINVAL; }

SetState state_of(int32_t sem_id) {
    semid_ds status = {};
    Argument argument = {.status = &status};
    if (semctl(sem_id, 0, IPC_STAT, argument) != 0)
        return is_gone(errno) ? SetState::gone : SetState::unknown;
    if (!trelm::detail::is_trusted(status.sem_perm.cuid) || !trelm::detail::is_trusted(status.sem_perm.uid))
        return SetState::foreign;
    if (status.sem_nsems != 1) return SetState::of_several;
    const int value = semctl(sem_id, 0, GETVAL);
    if (value == -1) return is_gone(errno) ? SetState::gone : SetState::unknown;
    return status.sem_otime != 0 || value != 0 ? SetState::usable : SetState::never_valued;
}

bool set_value(int32_t sem_id, int value) {
    Argument argument = {.value = value};
    return semctl(sem_id, 0, SETVAL, argument) == 0;
}

void nap() {
    timespec interval = {0, kNapMilliseconds * 1000000L};
    nanosleep(&interval, nullptr);
}

// A lock that processes of this library share while they look at a set and set it free. Where it cannot be
// had in a reasonable time, things go on without it: it only closes the gap between the look and the deed.
class InitialisationLock {
  public:
    InitialisationLock() : directory_(trelm::detail::open_file("/tmp", O_RDONLY | O_DIRECTORY)) {
        for (int naps = 0; directory_ && is_taken() && naps < kPatienceNaps; ++naps) nap();
    }

  private:
    bool is_taken() { return flock(directory_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

    trelm::detail::Descriptor directory_;  // closing it lets go
};

bool set_free(int32_t sem_id) {
    InitialisationLock lock;
    return state_of(sem_id) == SetState::usable || set_value(sem_id, 1);
}

SetState wait_for_first_value(int32_t sem_id) {
    SetState state = state_of(sem_id);
    for (int naps = 0; state == SetState::never_valued && naps < kPatienceNaps; ++naps) {
        nap();
        state = state_of(sem_id);
    }
    return state;
}

// An extra release raises the value above 1, which would admit two holders. The kernel takes such a release back
// when its process ends, so the surplus must not just be taken off, which would leave the value at 0 for ever: SETVAL
// also makes the kernel forget what it has to take back. Everything is taken first, in one step that works only while it
// is there, so that nobody enters between the look and SETVAL.
void take_off_surplus(int32_t sem_id) {
    for (int value = semctl(sem_id, 0, GETVAL); value > 1; value = semctl(sem_id, 0, GETVAL)) {
        sembuf step = {0, static_cast<short>(-value), IPC_NOWAIT | SEM_UNDO};
        if (semop(sem_id, &step, 1) != 0) {
            if (errno == EAGAIN) continue;
            return;
        }
        if (set_value(sem_id, 1)) return;
        step.sem_op = static_cast<short>(value);
        semop(sem_id, &step, 1);
        return;
    }
}

int32_t create_set(key_t key) {
    const int32_t sem_id = semget(key, 1, IPC_CREAT | IPC_EXCL | kPermissions);
    if (sem_id == -1 || set_free(sem_id)) return sem_id;
    trelm::detail::ErrnoKeeper keep;
    trelm::detail::sem_del(sem_id);
    return -1;
}

// A set that this process could not release. It still holds it, and to wait for it would be to wait for itself, for
// ever. A child process inherits the note but not the hold.
struct KeptHold {
    int32_t sem_id = -1;
    pid_t holder = 0;
};
KeptHold kept_of_database;
KeptHold kept_of_log;

KeptHold* kept_hold(int32_t sem_id) {
    if (sem_id == -1) return nullptr;
    return sem_id == trelm_db_sem_id    ? &kept_of_database
           : sem_id == trelm_dbg_sem_id ? &kept_of_log
                                        : nullptr;
}

void keep_hold(int32_t sem_id) {
    KeptHold* const kept = kept_hold(sem_id);
    if (kept && !is_gone(errno)) *kept = {sem_id, getpid()};
}

void forget_hold(int32_t sem_id) {
    if (KeptHold* const kept = kept_hold(sem_id)) *kept = {};
}

// Whether a wait is granted because the set is held from before. Others with the right to may have set it free.
bool is_held_from_before(int32_t sem_id) {
    const KeptHold* const kept = kept_hold(sem_id);
    if (!kept || kept->sem_id != sem_id || kept->holder != getpid()) return false;
    forget_hold(sem_id);
    const int value = semctl(sem_id, 0, GETVAL);
    if (value == -1) return !is_gone(errno);
    return value == 0 && semctl(sem_id, 0, GETPID) == getpid();
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

int take(int32_t sem_id) { return is_held_from_before(sem_id) ? 0 : operate(sem_id, -1); }

int let_go(int32_t sem_id) {
    const int result = operate(sem_id, 1);
    if (result == -1) keep_hold(sem_id);
    return result;
}

int32_t debug_semaphore() { return __atomic_load_n(&trelm_dbg_sem_id, __ATOMIC_RELAXED); }

// The failures of the log's own semaphore are not written to the log.
int warn_of_failure(const char* func, int32_t sem_id, int result, const char* warning) {
    const bool logs_own = sem_id != -1 && sem_id == debug_semaphore();
    if (result == -1 && !logs_own) trelm::detail::error(func, trelm::detail::Piece(warning, errno, 16));
    return result;
}

}  // namespace

int32_t trelm::detail::sem_get(key_t key) {
    // Between a look and the next step another process may create or remove the set.
    for (int tries = 0; tries < kTries; ++tries) {
        int32_t sem_id = semget(key, 1, IPC_EXCL | kPermissions);
        if (sem_id == -1) {
            sem_id = create_set(key);
            if (sem_id != -1 || errno != EEXIST) return sem_id;
            continue;
        }
        switch (wait_for_first_value(sem_id)) {
            case SetState::never_valued:
                if (set_free(sem_id)) return sem_id;
                if (!is_gone(errno)) return -1;
                break;
            case SetState::usable:
                take_off_surplus(sem_id);
                return sem_id;
            case SetState::foreign:
                if (sem_del(sem_id) != 0 && !is_gone(errno)) return -1;
                break;
            case SetState::gone:
                break;
            case SetState::of_several:
                errno = EEXIST;
                return -1;
            case SetState::unknown:
                return -1;
        }
    }
    errno = EEXIST;
    return -1;
}

int trelm::detail::sem_wait_unlogged(int32_t sem_id) { return take(sem_id); }

int trelm::detail::sem_signal_unlogged(int32_t sem_id) { return let_go(sem_id); }

int trelm::detail::sem_del(int32_t sem_id) {
    const int result = semctl(sem_id, 0, IPC_RMID);
    if (result == 0) forget_hold(sem_id);
    return result;
}

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
    const auto wanted = static_cast<uint32_t>(strtol(flags, nullptr, 16));
    if (wanted != trelm::detail::debug_flags()) __atomic_store_n(&trelm_debug, wanted, __ATOMIC_RELAXED);
    if (!wanted || debug_semaphore() != -1) return;
    // Threads that get here at once get the same set.
    const trelm::detail::NoCancellation whole;
    __atomic_store_n(&trelm_dbg_sem_id, trelm::detail::sem_get(trelm_dbg_semkey), __ATOMIC_RELAXED);
}
