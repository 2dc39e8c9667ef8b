// System V semaphores. Holds carry SEM_UNDO, so the kernel releases the hold of a killed process.
//
// A set is created and given its first value in two steps. Only its creator does the second step. If the
// creator is killed between the two, a process that finds the set in that state waits a short time and then
// sets the value itself. Both check the set again under a lock, so that a slow creator and a helper never
// both set it.
//
// Anyone can create a set under these keys. A set that another user made or owns is removed; if that fails,
// it is not used.

#include "semaphore_set.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <ctime>

#include "trelm_system.h"

namespace {

using trelm::detail::is_gone;
using trelm::detail::KeptHold;

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
    unknown,  // semctl() fails, so the set might never become free
};

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

// A lock between processes while they examine a set and give it its first value. If it cannot be had within
// 0.2 s, the process goes on without it: the lock only closes the gap between the two steps.
class InitialisationLock {
  public:
    InitialisationLock() : directory_(trelm::detail::open_file("/tmp", O_RDONLY | O_DIRECTORY)) {
        for (int naps = 0; directory_ && is_taken() && naps < kPatienceNaps; ++naps) nap();
    }

  private:
    bool is_taken() { return flock(directory_.get(), LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK; }

    trelm::detail::Descriptor directory_;  // closing it releases the lock
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

// An extra release raises the value above 1, which would admit two holders. The kernel takes that release
// back when its process ends, so subtracting the surplus here would leave the value at 0 for ever. SETVAL
// clears the kernel's undo counts as well. First the whole value is taken in one non-blocking step, so that
// nobody enters before SETVAL.
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
    semctl(sem_id, 0, IPC_RMID);
    return -1;
}

// Whether this process still holds the set because it could not release it. Root may have set it free since.
bool is_held_from_before(int32_t sem_id, KeptHold& kept) {
    if (sem_id == -1 || kept.sem_id != sem_id || kept.holder != getpid()) return false;
    kept = {};
    const int value = semctl(sem_id, 0, GETVAL);
    if (value == -1) return !is_gone(errno);
    return value == 0 && semctl(sem_id, 0, GETPID) == getpid();
}

// Repeated after a signal of the host program.
int operate(int32_t sem_id, short operation) {
    sembuf step = {0, operation, SEM_UNDO};
    int result;
    do {
        result = semop(sem_id, &step, 1);
    } while (result == -1 && errno == EINTR);
    return result;
}

}  // namespace

bool trelm::detail::is_gone(int error) { return error == EIDRM || error == EINVAL; }

int32_t trelm::detail::sem_get(key_t key) {
    // Another process may create or remove the set between two steps.
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
                if (semctl(sem_id, 0, IPC_RMID) != 0 && !is_gone(errno)) return -1;
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

int trelm::detail::sem_take(int32_t sem_id, KeptHold& kept) {
    return is_held_from_before(sem_id, kept) ? 0 : operate(sem_id, -1);
}

int trelm::detail::sem_release(int32_t sem_id, KeptHold& kept) {
    const int result = operate(sem_id, 1);
    if (result == -1 && !is_gone(errno)) kept = {sem_id, getpid()};
    return result;
}

int trelm::detail::sem_remove(int32_t sem_id, KeptHold& kept) {
    const int result = semctl(sem_id, 0, IPC_RMID);
    if (result == 0) kept = {};
    return result;
}
