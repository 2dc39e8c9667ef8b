// The database that processes with the library loaded share. Each takes one of eight slots; the last to leave
// removes the file and the semaphore that guards it.

#include "shared_db.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "semaphore_set.h"
#include "semaphores.h"
#include "shared_file.h"
#include "trelm_dbg.h"
#include "trelm_gate.h"
#include "trelm_system.h"

const char trelm_db_fname[] = "/tmp/trelm_shared.dat";
int32_t trelm_shm_fildes = -1;
trelm_shared_db* trelm_shared_data = nullptr;
uint8_t trelm_library_instance = 255;
uint8_t trelm_use_db = 1;

namespace {

using trelm::detail::error;
using trelm::detail::Piece;
using trelm::detail::trace;

constexpr uint32_t kSlotTaken = 0x4;
constexpr uint32_t kSlotMarks = 0x5;  // what taking a slot sets and giving it back clears
constexpr char kOpen[] = "trelm_open_database";
constexpr char kClose[] = "trelm_close_database";
constexpr int kGuardTries = 16;

pid_t slot_owner = 0;  // the process that took the slot; a forked child does not own it
uint32_t slot_forks = 0;

// Gets the semaphore and waits for it. The last process to leave, or one whose open failed, may remove the
// set between the two steps. This process then starts over, because it must not go on without the guard.
bool enter_guard() {
    for (int tries = 0; tries < kGuardTries; ++tries) {
        trelm_db_sem_id = trelm::detail::sem_get(trelm_db_semkey);
        if (trelm_db_sem_id == -1) {
            error(kOpen, Piece(": WARNING - semget function not supported.\n  Each adapter instance should "
                               "be opened at most "
                               "one time. errno=",
                               errno));
            return false;
        }
        trace(kOpen, Piece(": got trelm_db_sem_id=", trelm_db_sem_id));
        if (trelm_sem_wait(trelm_db_sem_id) == 0) return true;
        if (!trelm::detail::is_gone(errno)) break;
    }
    trelm_db_sem_id = -1;
    return false;
}

// Releases the guard by removing the set. It is not signalled first: a waiter would get the old set just
// before it is removed, while the next process creates a new one, and both would be inside. Removal wakes
// waiters with EIDRM, and they start over. If the removal fails, the set is signalled, so that nobody waits
// for ever.
void remove_guard() {
    if (trelm::detail::remove_database_semaphore() != 0) trelm_sem_signal(trelm_db_sem_id);
    trelm_db_sem_id = -1;
}

// If the signal fails, the set is removed. Waiters get EIDRM and retry.
void release_guard() {
    if (trelm_sem_signal(trelm_db_sem_id) != 0) trelm::detail::remove_database_semaphore();
}

void occupy(unsigned slot) {
    trelm_shared_data->libinst_flags[slot] |= kSlotMarks;
    memset(&trelm_shared_data->hbaptevq[slot], 0, sizeof(trelm_hbaptevq));
    trelm_library_instance = static_cast<uint8_t>(slot);
    slot_owner = getpid();
    slot_forks = trelm::detail::gate.forks;
}

void take_slot() {
    for (unsigned slot = 0; slot < kLibraryInstances; ++slot) {
        const uint32_t flags = trelm_shared_data->libinst_flags[slot];
        trace(kOpen, Piece(": libi=", slot));
        trace(kOpen, Piece(": libinst_flags=", flags, 16));
        if (flags & kSlotTaken) continue;
        occupy(slot);
        error(kOpen, Piece(": assigned api_lib_instance=", slot));
        return;
    }
    // A process that ended without closing leaves its slot marked. When no slot is free, all but one are
    // freed.
    for (unsigned slot = 1; slot < kLibraryInstances; ++slot)
        trelm_shared_data->libinst_flags[slot] &= ~kSlotTaken;
    occupy(0);
    error(kOpen, ": INFO - Assigning lib instance number to 0.");
}

void flush() { msync(trelm_shared_data, sizeof *trelm_shared_data, MS_SYNC); }

// Opens and maps the file and takes a slot. The descriptor, or -1.
int join() {
    trelm::detail::Descriptor fd(trelm::detail::open_shared_file(kOpen, trelm_db_fname));
    if (!fd) return -1;
    void* mapping = mmap(nullptr, sizeof(trelm_shared_db), PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (mapping == MAP_FAILED) {
        error(kOpen, Piece(": mmap on existing cxmgmt_native.dat failed=", errno));
        return -1;
    }
    trelm_shared_data = static_cast<trelm_shared_db*>(mapping);
    take_slot();
    flush();
    return fd.let_go();
}

// ---- Closing

// Whether this process was the last one and removed the file, and the errno if that failed.
struct LastOne {
    bool file_goes = false;
    int remove_errno = 0;
};

// Gives the slot back under the guard. The last process removes the file while it still holds the guard;
// otherwise a new process could open the file just before it disappears, and share it with nobody.
LastOne leave() {
    LastOne last;
    flush();
    const uint8_t load_inst = trelm_get_total_libinst_count();
    const bool alone = load_inst <= 1;
    if (!alone) {
        error(kClose, Piece(": inst=", trelm_library_instance),
              Piece(", this is not last instance. load_inst=", load_inst));
    }
    error(kClose, Piece(": inst=", trelm_library_instance), ", going to free up api instance.");
    trelm_shared_data->libinst_flags[trelm_library_instance] &= ~kSlotMarks;
    trace(kClose, Piece(": delete_sem=", alone));
    last.file_goes = load_inst == 1;
    if (last.file_goes && remove(trelm_db_fname) != 0) last.remove_errno = errno;
    if (alone && semctl(trelm_db_sem_id, 0, GETNCNT) == 0) {
        remove_guard();
    } else {
        release_guard();
        trace(kClose, ": keeping semaphore.");
    }
    return last;
}

bool has_slot() { return trelm_library_instance < kLibraryInstances && slot_owner == getpid(); }

void unmap() {
    error(kClose, ": close db file.");
    if (trelm_shared_data) munmap(trelm_shared_data, sizeof *trelm_shared_data);
    close(trelm_shm_fildes);
    trelm_shm_fildes = -1;
    trelm_shared_data = nullptr;
}

void report(const LastOne& last) {
    if (!last.file_goes) return error(kClose, ": keeping shared db file.");
    error(kClose, ": deleting shared db file.");
    if (last.remove_errno)
        error(kClose, Piece(": Unable to remove shared data file. errno=", last.remove_errno));
}

// True if a signal of the host program interrupted the read, which is then repeated.
bool was_interrupted(FILE* stream) {
    if (!ferror(stream) || errno != EINTR) return false;
    clearerr(stream);
    return true;
}

}  // namespace

bool trelm::detail::database_is_open() {
    return trelm_db_sem_id != -1 && trelm_shm_fildes >= 0 && trelm_shared_data;
}

// Every load of a loaded library calls this, so it makes no system call.
bool trelm::detail::database_is_inherited() { return database_is_open() && slot_forks != gate.forks; }

uint32_t trelm_open_database(int32_t* ret_handle) {
    trace(kOpen, ": entered.");
    *ret_handle = 0;
    if (trelm::detail::database_is_open()) {
        error(kOpen, ": already opened. trelm_ev_terminate FALSE.");
        *ret_handle = trelm_shm_fildes;
        return 0;
    }
    if (!enter_guard()) return 1;
    trace(kOpen, ": before accessing shared db.");
    const int fd = join();
    if (fd == -1) {
        remove_guard();
        return 1;
    }
    release_guard();
    *ret_handle = trelm_shm_fildes = fd;
    trace(kOpen, Piece(": trelm_shm_fildes=", trelm_shm_fildes));
    trace(kOpen, Piece(": exiting. inst=", trelm_library_instance));
    return 0;
}

uint32_t trelm_close_database(int32_t) {
    LastOne last;
    if (trelm_db_sem_id != -1 && has_slot() && trelm_shared_data) {
        error(kClose, Piece(": inst=", trelm_library_instance), ", going to clean up shared mem.");
        if (trelm_sem_wait(trelm_db_sem_id) == 0 || (trelm::detail::is_gone(errno) && enter_guard()))
            last = leave();
    }
    if (trelm_shm_fildes != -1) unmap();
    report(last);
    trace(kClose, Piece(": exiting, ret=", 0));
    return 0;
}

uint8_t trelm_get_total_libinst_count(void) {
    FILE* listing = trelm::detail::open_pipe("lsof 2> /dev/null | grep libtrelm | wc -l");
    if (!listing) {
        error(__func__, ": popen failed.");
        return 0;
    }
    char piece[32] = {};
    while (fgets(piece, sizeof piece, listing) || was_interrupted(listing)) {
    }
    pclose(listing);
    const long count = strtol(piece, nullptr, 10) / 2;
    return static_cast<uint8_t>(count < 0 ? 0 : count > UINT8_MAX ? UINT8_MAX : count);
}
