// crowd.cpp - the calls of the library as the crowd observes them. Processes are killed before or after each
// of these calls.
#include "crowd.h"

#include <sys/sem.h>

#include "../support/child.h"
#include "../support/libc_replacements.h"

namespace trelm::soak {

Crowd* const crowd = &test::make_common<Crowd>();

namespace {

constexpr int64_t kDawdling = 10'000'000'000;  // nanoseconds, at most
constexpr uint32_t kTaken = 0x4;

struct Self {
    User user;  // number 0: not in the crowd
    uint64_t calls = 0;
    const uint8_t* instance = nullptr;  // the slot variable of the library
    int32_t set = -1;                   // the semaphore of the database
    const uint32_t* flags = nullptr;    // flags of the slots, in the mapped file
    uint32_t before[kSlots] = {};       // the flags as they were when the file was mapped
    bool joining = false;
    bool leaving = false;
};
Self self;
const uint32_t& me = self.user.number;

bool lives(uint32_t number) { return number != 0 && number != me && !crowd->gone[number]; }

void kill_point() {
    if (self.user.fatal_call == 0 || ++self.calls != self.user.fatal_call) return;
    crowd->gone[me] = true;
    if (crowd->inside == me) {
        ++crowd->killed_inside;
        crowd->killed_at = now();
    }
    raise(SIGKILL);
}

// ---- The region

void enter() {
    const uint32_t other = crowd->inside.exchange(me);
    if (lives(other)) fail("process {} came in while process {} was inside", me, other);
    ++crowd->entries;
    const int64_t killed_at = crowd->killed_at.exchange(0);
    if (killed_at != 0) crowd->longest_wait = std::max<int64_t>(crowd->longest_wait, now() - killed_at);
}

// The holder, or a process that lost its slot in a reset of all slots, has cleared the mark or found it
// cleared.
void forget_holder(unsigned slot) {
    crowd->holders[slot] = 0;
    crowd->doubtful &= ~(1U << slot);
}

void leave() {
    if (self.leaving && *self.instance < kSlots) forget_holder(*self.instance);
    self.leaving = false;
    uint32_t inside = me;
    if (!crowd->inside.compare_exchange_strong(inside, 0))
        fail("process {} went out of the region where process {} was", me, inside);
}

void demand_guard(const char* call) {
    if (crowd->inside != me) fail("process {} called {} for the shared file without the guard", me, call);
}

// ---- Slots

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
    crowd->doubtful = first_free_slot() == kSlots ? (1U << kSlots) - 1 : 0;
}

void check_reset() {
    ++crowd->resets;
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        forget_holder(slot);
        if (slot != 0 && (self.flags[slot] & kTaken) != 0)
            fail("slot {} stayed marked when all were taken", slot);
    }
}

// The process has just taken its slot.
void check_slot() {
    ++crowd->slots_checked;
    struct stat status {};
    if (stat(kSharedFile, &status) != 0 || status.st_size != kFileSize)
        fail("the shared file had {} bytes", status.st_size);
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        if (lives(crowd->holders[slot]) && !was_marked(slot))
            fail("slot {} of living process {} was marked free", slot, crowd->holders[slot].load());
    }
    const unsigned slot = first_free_slot() % kSlots;
    if (was_marked(slot)) check_reset();
    if (*self.instance != slot) fail("process {} got slot {} in place of {}", me, *self.instance, slot);
    if ((self.flags[slot] & kTaken) == 0) fail("slot {} was not marked by its holder", slot);
    if (lives(crowd->holders[slot])) fail("slot {} is held twice", slot);
    crowd->holders[slot] = me;
}

void file_is_removed() {
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        const uint32_t holder = crowd->holders[slot];
        if (lives(holder)) fail("the file of living process {} was removed", holder);
        forget_holder(slot);
    }
}

// ---- Semaphores

void note_first_value(int32_t set) {
    for (size_t i = 0; i < kMostSets; ++i) {
        int32_t there = 0;
        if (crowd->valued[(static_cast<size_t>(set) + i) % kMostSets].compare_exchange_strong(there, set + 1))
            return;
        if (there == set + 1) return fail("semaphore set {} got its first value twice", set);
    }
}

}  // namespace

int64_t now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

void forget_all_processes() {
    crowd->inside = 0;
    crowd->killed_at = 0;
    for (unsigned slot = 0; slot < kSlots; ++slot) forget_holder(slot);
}

void complain(const std::string& what) {
    if (me != 0 && crowd->gone[me]) return;
    ++crowd->failures;
    fmt::print("soak: {}\n", what);
    fflush(stdout);
}

void join_crowd(const User& user, const uint8_t* library_instance) {
    self = {.user = user, .instance = library_instance};
    if (!test::find_library()) fail("the library is not in process {}", me);
}

// ---- The library's calls

// An observed call. The process may be killed before and after it.
#define WATCHED(result, name, parameters, arguments, before, after)          \
    REPLACES_LIBC(result, name, parameters) {                                \
        if (me == 0 || !CALLED_BY_LIBRARY()) return NEXT_OF(name) arguments; \
        kill_point();                                                        \
        before;                                                              \
        const auto outcome = NEXT_OF(name) arguments;                        \
        after;                                                               \
        kill_point();                                                        \
        return outcome;                                                      \
    }

static bool is_shared_file(const char* path) { return strcmp(path, kSharedFile) == 0; }

static void before_semctl(int32_t set, int command) {
    if (command != IPC_RMID || set != self.set || crowd->inside != me) return;
    crowd->removing = self.user.dawdles;
    // Gives newcomers time to find the set and wait for it.
    const int64_t end = now() + kDawdling;
    while (self.user.dawdles && semctl(set, 0, GETNCNT) == 0 && now() < end) usleep(1000);
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
    if (self.joining) check_slot();
    self.leaving = !self.joining;
    if (self.leaving && *self.instance < kSlots) crowd->doubtful |= 1U << *self.instance;
    self.joining = false;
}

WATCHED(int, semget, (key_t key, int count, int flags), (key, count, flags), ,
        if (key == kDatabaseKey && outcome != -1) self.set = outcome)
WATCHED(int, semop, (int set, sembuf* steps, size_t count), (set, steps, count),
        if (set == self.set && steps->sem_op > 0) leave(),
        if (set == self.set && steps->sem_op < 0 && outcome == 0) enter())
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
