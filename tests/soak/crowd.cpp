// crowd.cpp - the library's calls as the crowd watches them, and the points at which processes are killed:
// before and after each of these calls.
#include "crowd.h"

#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "../support/stand_before.h"
#include "user.h"

namespace trelm::soak {

Crowd* crowd = nullptr;

namespace {

constexpr size_t kFileSize = 163840;
constexpr int64_t kDawdling = 10'000'000'000;  // at most
constexpr uint32_t kTaken = 0x4;
constexpr uint32_t kEverySlot = (1U << kSlots) - 1;

struct Self {
    uint32_t number = 0;  // 0: no process of the crowd
    uint64_t calls = 0;
    uint64_t fatal_call = 0;
    bool dawdles = false;
    const uint8_t* instance = nullptr;  // the library's slot
    int32_t set = -1;                   // the database's semaphore
    const uint32_t* flags = nullptr;    // of the slots, in the mapped file
    uint32_t before[kSlots] = {};       // the flags as they were when the file was mapped
    bool joining = false;
    bool leaving = false;
};
Self self;

bool is_inside() { return crowd->inside == self.number; }
bool lives(uint32_t number) { return number != 0 && number != self.number && !crowd->gone[number]; }

void kill_point() {
    if (self.fatal_call == 0 || ++self.calls != self.fatal_call) return;
    crowd->gone[self.number] = true;
    if (is_inside()) {
        ++crowd->killed_inside;
        crowd->killed_at = now();
    }
    raise(SIGKILL);
}

// ---- The region
// -----------------------------------------------------------------------------------------------------

void enter() {
    const uint32_t other = crowd->inside.exchange(self.number);
    if (lives(other)) fail("process %u came in while process %u was inside", self.number, other);
    ++crowd->entries;
    const int64_t killed_at = crowd->killed_at.exchange(0);
    if (killed_at == 0) return;
    const int64_t waited = now() - killed_at;
    if (waited > crowd->longest_wait) crowd->longest_wait = waited;
}

// Its holder, or one whom a reset of all slots displaced, has taken the mark off or found it off.
void forget_holder(unsigned slot) {
    crowd->holders[slot] = 0;
    crowd->doubtful &= ~(1U << slot);
}

void give_slot_back() {
    if (self.leaving && *self.instance < kSlots) forget_holder(*self.instance);
    self.leaving = false;
}

void leave() {
    give_slot_back();
    uint32_t me = self.number;
    if (!crowd->inside.compare_exchange_strong(me, 0))
        fail("process %u went out of the region where process %u was", self.number, me);
}

void demand_guard(const char* call) {
    if (!is_inside()) fail("process %u called %s for the shared file without the guard", self.number, call);
}

// ---- Slots
// ----------------------------------------------------------------------------------------------------------

bool was_marked(unsigned slot) { return (self.before[slot] & kTaken) != 0; }

unsigned first_free_slot() {
    unsigned slot = 0;
    while (slot < kSlots && was_marked(slot)) ++slot;
    return slot;
}

void settle_doubts() {
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        if ((crowd->doubtful & 1U << slot) != 0 && !was_marked(slot)) forget_holder(slot);
    }
    crowd->doubtful = first_free_slot() == kSlots ? kEverySlot : 0;
}

void check_holders_are_marked() {
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        if (lives(crowd->holders[slot]) && !was_marked(slot))
            fail("slot %u of living process %u was marked free", slot, crowd->holders[slot].load());
    }
}

void check_reset() {
    ++crowd->resets;
    for (unsigned slot = 1; slot < kSlots; ++slot) {
        forget_holder(slot);
        if ((self.flags[slot] & kTaken) != 0) fail("slot %u stayed marked when all were taken", slot);
    }
    forget_holder(0);
}

void check_size() {
    struct stat status {};
    if (stat(kSharedFile, &status) != 0 || status.st_size != kFileSize)
        fail("the shared file had %lld bytes", static_cast<long long>(status.st_size));
}

// The process has just taken its slot.
void check_slot() {
    check_size();
    check_holders_are_marked();
    unsigned slot = first_free_slot();
    if (slot == kSlots) {
        check_reset();
        slot = 0;
    }
    if (*self.instance != slot)
        fail("process %u got slot %u in place of %u", self.number, *self.instance, slot);
    if ((self.flags[slot] & kTaken) == 0) fail("slot %u was not marked by its holder", slot);
    if (lives(crowd->holders[slot])) fail("slot %u is held twice", slot);
    crowd->holders[slot] = self.number;
}

void file_is_removed() {
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        const uint32_t holder = crowd->holders[slot];
        if (lives(holder)) fail("the file of living process %u was removed", holder);
        forget_holder(slot);
    }
}

// ---- Semaphores
// -----------------------------------------------------------------------------------------------------

void note_first_value(int32_t set) {
    for (size_t i = 0; i < kMostSets; ++i) {
        std::atomic<int32_t>& place = crowd->valued[(static_cast<size_t>(set) + i) % kMostSets];
        int32_t there = 0;
        if (place.compare_exchange_strong(there, set + 1)) return;
        if (there == set + 1) return fail("semaphore set %d got its first value twice", set);
    }
}

bool is_guards(int32_t set) { return set == self.set; }

}  // namespace

int64_t now() {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

void make_crowd() {
    void* const memory = mmap(nullptr, sizeof(Crowd), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) abort();
    crowd = static_cast<Crowd*>(memory);  // zeros are what its members begin with
}

void forget_all_processes() {
    crowd->inside = 0;
    crowd->killed_at = 0;
    for (unsigned slot = 0; slot < kSlots; ++slot) forget_holder(slot);
}

void fail(const char* format, ...) {
    if (self.number != 0 && crowd->gone[self.number]) return;
    ++crowd->failures;
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    printf("soak: %s\n", text);
    fflush(stdout);
}

void join_crowd(const User& user, const uint8_t* library_instance) {
    self = {};
    self.number = user.number;
    self.fatal_call = user.fatal_call;
    self.dawdles = user.dawdles;
    self.instance = library_instance;
    if (!test::find_library()) fail("the library is not in process %u", user.number);
}

// ---- The library's calls
// --------------------------------------------------------------------------------------------

// A call that is watched, with a point to be killed at before and after it.
#define WATCHED(result, name, parameters, arguments, before, after)                   \
    STANDS_BEFORE(result, name, parameters) {                                         \
        if (self.number == 0 || !CALLED_BY_LIBRARY()) return NEXT_OF(name) arguments; \
        kill_point();                                                                 \
        before;                                                                       \
        const auto outcome = NEXT_OF(name) arguments;                                 \
        after;                                                                        \
        kill_point();                                                                 \
        return outcome;                                                               \
    }

static bool is_shared_file(const char* path) { return strcmp(path, kSharedFile) == 0; }

static void set_is_got(key_t key, int32_t set) {
    if (key == kDatabaseKey && set != -1) self.set = set;
}

static void before_semop(int32_t set, int operation) {
    if (is_guards(set) && operation > 0) leave();
}
static void after_semop(int32_t set, int operation, int outcome) {
    if (is_guards(set) && operation < 0 && outcome == 0) enter();
}

// Lets newcomers find the set and wait for it.
static void dawdle() {
    crowd->removing = true;
    const int64_t end = now() + kDawdling;
    while (semctl(self.set, 0, GETNCNT) == 0 && now() < end) usleep(1000);
}
static void before_semctl(int32_t set, int command) {
    if (command != IPC_RMID || !is_guards(set) || !is_inside()) return;
    if (self.dawdles) dawdle();
    leave();
}

static void file_is_mapped(void* memory) {
    demand_guard("mmap");
    self.flags = static_cast<const uint32_t*>(memory);
    memcpy(self.before, self.flags, sizeof self.before);
    settle_doubts();
    self.joining = true;
}

static void before_flush() {
    demand_guard("msync");
    if (self.joining) {
        check_slot();
    } else {
        self.leaving = true;
        if (*self.instance < kSlots) crowd->doubtful |= 1U << *self.instance;
    }
    self.joining = false;
}

WATCHED(int, semget, (key_t key, int count, int flags), (key, count, flags), , set_is_got(key, outcome))
WATCHED(int, semop, (int set, sembuf* steps, size_t count), (set, steps, count),
        before_semop(set, count == 1 ? steps->sem_op : 0),
        after_semop(set, count == 1 ? steps->sem_op : 0, outcome))
WATCHED(int, semctl, (int set, int number, int command, void* argument), (set, number, command, argument),
        before_semctl(set, command), if (command == SETVAL && outcome == 0) note_first_value(set))
WATCHED(int, flock, (int fd, int operation), (fd, operation), , )
WATCHED(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode),
        if (is_shared_file(path)) demand_guard("open"), )
WATCHED(ssize_t, write, (int fd, const void* bytes, size_t count), (fd, bytes, count),
        demand_guard("write"), )
WATCHED(int, fsync, (int fd), (fd), demand_guard("fsync"), )
WATCHED(void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t offset),
        (at, size, access, flags, fd, offset), , if (outcome != MAP_FAILED) file_is_mapped(outcome))
WATCHED(int, msync, (void* at, size_t size, int flags), (at, size, flags), before_flush(), )
WATCHED(int, remove, (const char* path), (path), demand_guard("remove"),
        if (outcome == 0 && is_shared_file(path)) file_is_removed())
WATCHED(FILE*, popen, (const char* command, const char* mode), (command, mode), , )
WATCHED(int, fputs, (const char* text, FILE* file), (text, file), , )
WATCHED(int, fclose, (FILE * file), (file), , )

}  // namespace trelm::soak
