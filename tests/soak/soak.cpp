// soak.cpp - crowds of processes load the library, work, free it and are killed, on one simulated host with
// real semaphores and the real process listing. The processes check each other at calls of the library, where
// the guard of the database decides who may be there, so no check depends on timing. After its time the last
// processes of a crowd end by themselves. A single process then must find everything in order and leave
// nothing behind.
#include <dlfcn.h>
#include <fmt/format.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <atomic>
#include <fstream>
#include <map>
#include <random>

#include "../support/child.h"
#include "../support/golden.h"
#include "../support/libc_replacements.h"
#include "../support/options.h"
#include "host.h"
#include "host_builders.h"
#include "trelm_mgmt.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kSharedFile[] = "/tmp/trelm_shared.dat";  // of the simulated host
constexpr char kLogFile[] = "/var/tmp/libtrelm.log";     // likewise
constexpr off_t kFileSize = 163840;
constexpr key_t kDatabaseKey = 0x32C;
constexpr size_t kSlots = 8;
constexpr uint32_t kTaken = 0x4;
constexpr size_t kMostProcesses = size_t{1} << 20;

// ---- What the processes share

// Processes are numbered from 1 in the order of their creation; 0 is none.
struct Crowd {
    std::atomic<uint32_t> inside;            // the process in the region that the database's semaphore guards
    std::atomic<uint32_t> holders[kSlots];   // the process that took the slot and has not left it
    std::atomic<bool> slots_are_shared;      // since all slots were marked and freed
    std::atomic<bool> gone[kMostProcesses];  // killed, or about to be killed
    std::atomic<int32_t> valued;             // the semaphore set that got its first value last, as id + 1
    std::atomic<bool> removing;              // a slow process is about to remove the semaphore
    std::atomic<uint64_t> entries;           // into the region
    std::atomic<uint64_t> rounds;            // of load, work and free
    std::atomic<uint64_t> killed_inside;     // processes that were killed in the region
    std::atomic<uint64_t> slots_checked;     // just after they were taken
    std::atomic<uint64_t> failures;
};
Crowd& crowd = trelm::test::make_common<Crowd>();

// A process that uses the library.
struct User {
    uint32_t number = 0;  // 0: not in the crowd
    unsigned rounds = 1;
    uint32_t log_flags = 0;
    uint64_t fatal_call = 0;  // the call at which it kills itself; 0: none
    bool dawdles = false;     // waits for another process before it removes the semaphore
};

struct Self {
    User user;
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

bool lives(uint32_t number) { return number != 0 && number != me && !crowd.gone[number]; }

// Failures of a process that is about to be killed do not count.
template <typename... Values>
void fail(fmt::format_string<Values...> format, Values&&... values) {
    if (me != 0 && crowd.gone[me]) return;
    ++crowd.failures;
    fmt::print("soak: {}\n", fmt::format(format, std::forward<Values>(values)...));
    fflush(stdout);
}

// ---- What a process checks at its calls

void kill_point() {
    if (self.user.fatal_call == 0 || ++self.calls != self.user.fatal_call) return;
    crowd.gone[me] = true;
    if (crowd.inside == me) ++crowd.killed_inside;
    raise(SIGKILL);
}

void enter() {
    const uint32_t other = crowd.inside.exchange(me);
    if (lives(other)) fail("process {} came in while process {} was inside", me, other);
    ++crowd.entries;
}

void leave() {
    if (self.leaving && *self.instance < kSlots) crowd.holders[*self.instance] = 0;
    self.leaving = false;
    uint32_t inside = me;
    if (!crowd.inside.compare_exchange_strong(inside, 0))
        fail("process {} went out of the region where process {} was", me, inside);
}

void demand_guard(const char* call) {
    if (crowd.inside != me) fail("process {} called {} for the shared file without the guard", me, call);
}

bool was_marked(unsigned slot) { return (self.before[slot] & kTaken) != 0; }
bool is_marked(unsigned slot) { return (self.flags[slot] & kTaken) != 0; }

unsigned first_free_slot() {
    unsigned slot = 0;
    while (slot < kSlots && was_marked(slot)) ++slot;
    return slot;
}

void file_is_mapped(void* memory) {
    demand_guard("mmap");
    self.flags = static_cast<const uint32_t*>(memory);
    memcpy(self.before, self.flags, sizeof self.before);
    self.joining = true;
    if (first_free_slot() == kSlots) crowd.slots_are_shared = true;
}

// The process has just taken its slot.
void check_slot() {
    ++crowd.slots_checked;
    struct stat status {};
    if (stat(kSharedFile, &status) != 0 || status.st_size != kFileSize)
        fail("the shared file had {} bytes", status.st_size);
    const bool all_were_marked = first_free_slot() == kSlots;
    const unsigned taken = first_free_slot() % kSlots;
    if (*self.instance != taken) fail("process {} got slot {} in place of {}", me, *self.instance, taken);
    for (unsigned slot = 0; slot < kSlots; ++slot) {
        const uint32_t holder = crowd.holders[slot];
        if (is_marked(slot) != (slot == taken || (was_marked(slot) && !all_were_marked)))
            fail("process {} left the mark of slot {} wrong", me, slot);
        if (!crowd.slots_are_shared && lives(holder) && !was_marked(slot))
            fail("slot {} of living process {} was marked free", slot, holder);
    }
    crowd.holders[taken] = me;
}

void before_flush() {
    demand_guard("msync");
    if (self.joining) check_slot();
    self.leaving = !self.joining;
    self.joining = false;
}

void file_is_removed() {
    for (std::atomic<uint32_t>& holder : crowd.holders) {
        if (!crowd.slots_are_shared && lives(holder))
            fail("the file of living process {} was removed", holder.load());
        holder = 0;
    }
    crowd.slots_are_shared = false;
}

void before_semctl(int32_t set, int command) {
    if (command != IPC_RMID || set != self.set || crowd.inside != me) return;
    crowd.removing = self.user.dawdles;
    // Gives newcomers time to find the set and wait for it.
    if (self.user.dawdles) trelm::test::eventually([set] { return semctl(set, 0, GETNCNT) > 0; });
    leave();
}

void set_has_value(int32_t set) {
    if (set == self.set && crowd.valued.exchange(set + 1) == set + 1)
        fail("semaphore set {} got its first value twice", set);
}

bool is_shared_file(const char* path) { return strcmp(path, kSharedFile) == 0; }

}  // namespace

// A call of the library that the crowd observes. The process may be killed before and after it.
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

WATCHED(int, semget, (key_t key, int count, int flags), (key, count, flags), ,
        if (key == kDatabaseKey && outcome != -1) self.set = outcome)
WATCHED(int, semop, (int set, sembuf* steps, size_t count), (set, steps, count),
        if (set == self.set && steps->sem_op > 0) leave(),
        if (set == self.set && steps->sem_op < 0 && outcome == 0) enter())
WATCHED(int, semctl, (int set, int number, int command, void* argument), (set, number, command, argument),
        before_semctl(set, command), if (command == SETVAL && outcome == 0) set_has_value(set))
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

namespace {

// ---- A process of the crowd

// The process loads the library itself, so that its parent is not counted as a user.
[[noreturn]] void use_library(const User& user) {
    setenv("TRELM_API_DEBUG", std::to_string(user.log_flags).c_str(), 1);
    void* const library = dlopen(TRELM_LIBRARY, RTLD_NOW);
    if (!library || !trelm::test::find_library() || !freopen("/dev/null", "w", stderr)) _exit(1);
    self = {.user = user, .instance = static_cast<uint8_t*>(dlsym(library, "trelm_library_instance"))};
    const auto demand_ok = [](const char* function, uint32_t code) {
        if (code != TRELM_STATUS_OK) fail("process {}: {} returned {:#x}", me, function, code);
    };
#define CALL(function, ...) \
    demand_ok(#function, reinterpret_cast<decltype(&function)>(dlsym(library, #function))(__VA_ARGS__))
    for (unsigned round = 0; round < user.rounds; ++round) {
        uint32_t handle = 0;
        TRELM_VNPORT_INFO info = {};
        CALL(TRELM_LoadLibrary);
        CALL(TRELM_OpenAdapter, 0, &handle);
        CALL(TRELM_GetVNPortInfo, handle, 0, &info);
        CALL(TRELM_CloseAdapter, handle);
        CALL(TRELM_FreeLibrary);
        ++crowd.rounds;
    }
    _exit(0);
}

// ---- Their parent

constexpr auto kCrowdTime = std::chrono::seconds(1);
// The crowd hangs if no process makes progress for this long. The speed of the progress does not matter.
constexpr auto kPatience = std::chrono::seconds(60);
constexpr unsigned kLargestCrowd = 6;  // in a small crowd, a process is often the last one
// The approximate number of calls in a round at which a process can be killed; more with the log on.
constexpr unsigned kFatalCalls = 60;
constexpr unsigned kFatalCallsWithLog = 2000;

// A process that may be killed, one that may not, and one that waits for others before it removes the
// semaphore.
enum class Part { mortal, survivor, dawdler };

class Soak {
  public:
    explicit Soak(unsigned seed) : random_(seed) {}

    void run_crowd() {
        ++crowds_;
        const unsigned size = 2 + pick(kLargestCrowd - 1);
        const auto end = Clock::now() + kCrowdTime;
        while (Clock::now() < end && crowd.failures == 0) {
            while (living_.size() < size) start(Part::mortal);
            kill_some();
            step();
        }
        see_all_end();
    }

    // Newcomers wait for the semaphore while the last process is about to remove it.
    void run_meeting() {
        crowd.removing = false;
        start(Part::dawdler);
        while (!crowd.removing && !living_.empty()) step();
        for (int newcomer = 0; newcomer < 2; ++newcomer) start(Part::survivor);
        see_all_end();
    }

    // Checks the remains of the crowd: whole lines in the log, and nothing that hinders a single process.
    void look_after_crowd() {
        crowd.inside = 0;
        for (std::atomic<uint32_t>& holder : crowd.holders) holder = 0;
        check_log();
        kills_in_crowd_ = 0;
        start(Part::survivor);
        see_all_end();
        if (fs::exists(kSharedFile)) fail("the last process left the shared file behind");
        if (semget(kDatabaseKey, 0, 0) >= 0) fail("the last process left its semaphore set behind");
        std::error_code ignored;
        fs::remove(kLogFile, ignored);
    }

    // True if there was no failure.
    bool report() const {
        if (crowd.slots_checked < crowd.rounds)
            fail("{} slots were checked in {} rounds", crowd.slots_checked.load(), crowd.rounds.load());
        fmt::print(
            "soaked {} processes in {} crowds: {} kills survived ({} with the guard), {} rounds, "
            "{} log lines, {} failures\n",
            last_number_, crowds_, kills_, crowd.killed_inside.load(), crowd.rounds.load(), log_lines_,
            crowd.failures.load());
        return crowd.failures == 0;
    }

  private:
    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }

    void start(Part part) {
        User user;
        user.number = ++last_number_;
        user.dawdles = part == Part::dawdler;
        user.rounds = user.dawdles ? 1 : 1 + pick(4);
        user.log_flags = pick(3) == 0 ? 7 : 0;
        const unsigned fatal_calls = user.log_flags == 0 ? kFatalCalls : kFatalCallsWithLog;
        user.fatal_call = part == Part::mortal && pick(2) == 0 ? 1 + pick(fatal_calls) : 0;
        if (user.number >= kMostProcesses) return fail("there were too many processes");
        const pid_t id = fork();
        if (id == 0) use_library(user);
        living_[id] = user.number;
    }

    void kill_some() {
        if (living_.empty() || pick(200) != 0) return;
        const auto victim = std::next(living_.begin(), pick(static_cast<unsigned>(living_.size())));
        crowd.gone[victim->second] = true;
        kill(victim->first, SIGKILL);
    }

    void see_all_end() {
        while (!living_.empty()) step();
    }
    void step() {
        usleep(1000);
        int status = 0;
        for (pid_t id = waitpid(-1, &status, WNOHANG); id > 0; id = waitpid(-1, &status, WNOHANG))
            bury(id, status);
        demand_progress();
    }
    void bury(pid_t id, int status) {
        const auto found = living_.find(id);
        if (found == living_.end()) return;
        const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
        if (!killed && status != 0) fail("process {} ended with status {:#x}", found->second, status);
        if (killed) ++kills_, ++kills_in_crowd_;
        crowd.gone[found->second] = true;
        living_.erase(found);
        went_on_ = Clock::now();
    }
    void demand_progress() {
        const uint64_t entries = entries_;
        entries_ = crowd.entries;
        if (entries_ != entries) went_on_ = Clock::now();
        if (Clock::now() - went_on_ < kPatience) return;
        fail("nobody of {} processes went on", living_.size());
        for (const auto& [id, number] : living_) kill(id, SIGKILL);
        went_on_ = Clock::now();
    }

    // "Nov 22 21:05:09: text", with one stamp. A process that is killed while it writes may leave one
    // incomplete line.
    void check_log() {
        static const trelm::test::Pattern stamp("[A-Z][a-z]{2} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d: ");
        std::ifstream file(kLogFile);
        uint64_t broken = 0;
        for (std::string line; std::getline(file, line); ++log_lines_) {
            broken += stamp.positions_in(line) != std::vector<std::size_t>{0};
        }
        if (broken > kills_in_crowd_) fail("{} log lines were broken by {} kills", broken, kills_in_crowd_);
    }

    std::mt19937 random_;
    std::map<pid_t, uint32_t> living_;
    uint32_t last_number_ = 0;
    uint64_t crowds_ = 0, kills_ = 0, kills_in_crowd_ = 0, log_lines_ = 0, entries_ = 0;
    Clock::time_point went_on_ = Clock::now();
};

}  // namespace

int main(int argc, char** argv) {
    unsigned seconds = 60;
    unsigned seed = std::random_device{}();
    trelm::test::read_options(argc, argv,
                              "Crowds of processes that load the library, work, free it and are killed.",
                              {{"--seconds", &seconds, "How long crowds go on coming"},
                               {"--seed", &seed, "What chance starts from"}});
    fmt::print("soak: seed {}\n", seed);
    fflush(stdout);
    const hostsim::Host host(hostsim::hosts::kron_ports(1));
    const auto end = Clock::now() + std::chrono::seconds(seconds);
    Soak soak(seed);
    do {
        soak.run_crowd();
        soak.look_after_crowd();
        soak.run_meeting();
    } while (Clock::now() < end && crowd.failures == 0);
    return soak.report() ? 0 : 1;
}
