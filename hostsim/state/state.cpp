#include "state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "own_calls.h"
#include "passed_directories.h"
#include "simulator_paths.h"

namespace hostsim {

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kMagic = 0x31746174736d6c72;  // changes with the layout below
constexpr size_t kCounterSlots = 16384;
constexpr size_t kSemaphoreSlots = 4096;
constexpr uint64_t kSlotTaken = uint64_t{1} << 32;

struct SharedCounter {
    std::atomic<uint64_t> name;  // hash, 0: free
    std::atomic<uint64_t> value;
};

}  // namespace

// All atomics: no process may leave the others waiting, however it ends.
struct SharedState {
    uint64_t magic;
    uint64_t host_id;
    int64_t started;  // nanoseconds of the machine's monotonic clock
    char host_file[4096];
    std::atomic<uint64_t> semaphores[kSemaphoreSlots];  // kSlotTaken and the machine's key
    SharedCounter counters[kCounterSlots];
};
static_assert(std::atomic<uint64_t>::is_always_lock_free);

namespace {

constinit std::atomic<State*> current_state = nullptr;

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

int64_t monotonic_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

uint64_t random_id() {
    uint64_t id = 0;
    while (id == 0) {
        if (getrandom(&id, sizeof id, 0) != sizeof id) id = static_cast<uint64_t>(monotonic_now()) ^ getpid();
    }
    return id;
}

uint64_t mix(uint64_t value) {
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
}

uint64_t hash(std::string_view name) {
    uint64_t value = 0xcbf29ce484222325;
    for (const char c : name) value = (value ^ static_cast<uint8_t>(c)) * 0x100000001b3;
    return mix(value) | 1;
}

constexpr const char* kTemporaryRoot = "trelm-hostsim-";

// Locked, shared, by all who run the host at a root.
fs::path users_path(const fs::path& root) { return root / ".hostsim" / "users"; }

fs::path state_path(const fs::path& root) { return root / ".hostsim" / "state"; }

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }

  private:
    int fd_;
};

SharedState* map_state(const fs::path& path, int flags) {
    const Descriptor file(open(path.c_str(), flags | O_RDWR | O_CLOEXEC, 0600));
    if (file.get() < 0) fail(path.string());
    if ((flags & O_CREAT) != 0 && ftruncate(file.get(), sizeof(SharedState)) != 0) fail(path.string());
    struct stat status {};
    if (fstat(file.get(), &status) != 0) fail(path.string());
    if (status.st_size != sizeof(SharedState)) {
        errno = EPROTO;
        fail(path.string());
    }
    void* memory = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) fail(path.string());
    return static_cast<SharedState*>(memory);
}

void unmap_state(SharedState* shared) { munmap(shared, sizeof(SharedState)); }

void remove_semaphores(const SharedState& shared) {
    for (const auto& slot : shared.semaphores) {
        const uint64_t taken = slot.load();
        if (taken == 0) continue;
        const int set = semget(static_cast<key_t>(taken), 0, 0);
        if (set >= 0) semctl(set, 0, IPC_RMID);
    }
}

// What a host that ended without cleaning left behind, if there is any.
void remove_remains(const fs::path& root) noexcept {
    try {
        SharedState* shared = map_state(state_path(root), 0);
        if (shared->magic == kMagic) remove_semaphores(*shared);
        unmap_state(shared);
    } catch (const std::exception&) {
        // No shared file, or none of this simulator's: no semaphores to know of.
    }
    std::error_code error;
    fs::remove(state_path(root), error);
}

void lay_out(const fs::path& root) {
    for (const char* directory : {"tmp", "var/tmp", "luns", "dev/char/vmkdriver", ".hostsim/bin"})
        fs::create_directories(root / directory);
    for (const char* directory : {"tmp", "var/tmp"})
        fs::permissions(root / directory, fs::perms::all | fs::perms::sticky_bit);
    const fs::path listing = root / ".hostsim" / "bin" / "lsof";
    fs::remove(listing);
    if (const fs::path launcher = launcher_path(); !launcher.empty()) fs::create_symlink(launcher, listing);
}

}  // namespace

namespace {

// Whether a host of this user was here and nobody runs it any more. A host that has only just begun may not
// have taken its lock yet.
bool is_forsaken(const fs::path& root) {
    constexpr time_t kBeginning = 60;  // seconds
    const Descriptor users(open(users_path(root).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    struct stat status {};
    return users.get() >= 0 && fstat(users.get(), &status) == 0 && status.st_uid == geteuid() &&
           status.st_mtime + kBeginning < time(nullptr) && flock(users.get(), LOCK_EX | LOCK_NB) == 0;
}

void remove_forsaken(const fs::path& directory) noexcept {
    std::error_code error;
    for (fs::directory_iterator at(directory, error), end; !error && at != end; at.increment(error)) {
        const fs::path root = at->path();
        if (!root.filename().string().starts_with(kTemporaryRoot) || !is_forsaken(root)) continue;
        State::clean(root);
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
}

}  // namespace

State::State(std::string root, std::vector<std::string> passed, SharedState* shared, pid_t owner)
    : root_(std::move(root)),
      passed_(std::move(passed)),
      shared_(shared),
      owner_(owner),
      previous_(current_state.load()) {
    current_state.store(this);
}

State::~State() {
    const OwnCalls own;
    current_state.store(previous_);
    unmap_state(shared_);
    if (in_use_ >= 0) close(in_use_);
    if (owner_ != getpid()) return;
    clean(root_);
    std::error_code error;
    fs::remove_all(root_, error);
}

fs::path State::temporary_root() {
    const OwnCalls own;
    const char* given = std::getenv("TMPDIR");
    const std::string directory = given != nullptr && *given != 0 ? given : "/tmp";
    remove_forsaken(directory);
    std::string path = directory + "/" + kTemporaryRoot + "XXXXXX";
    if (mkdtemp(path.data()) == nullptr) fail("a directory for the simulated host, " + path);
    return fs::canonical(path);
}

std::unique_ptr<State> State::temporary() {
    const OwnCalls own;
    const fs::path root = temporary_root();
    try {
        create(root, "");
        PassedDirectories passed;
        passed.add_working_directory();
        std::unique_ptr<State> state(
            new State(root.string(), passed.directories(), map_state(state_path(root), 0), getpid()));
        state->in_use_ = open(users_path(root).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (state->in_use_ < 0 || flock(state->in_use_, LOCK_SH) != 0) fail(users_path(root).string());
        return state;
    } catch (...) {
        std::error_code error;
        fs::remove_all(root, error);
        throw;
    }
}

std::unique_ptr<State> State::attach(const fs::path& root, std::vector<std::string> passed) {
    const OwnCalls own;
    SharedState* shared = map_state(state_path(root), 0);
    if (shared->magic != kMagic) {
        unmap_state(shared);
        errno = EPROTO;
        fail(state_path(root).string());
    }
    return std::unique_ptr<State>(new State(fs::canonical(root).string(), std::move(passed), shared, 0));
}

void State::create(const fs::path& root, std::string_view host_file) {
    const OwnCalls own;
    lay_out(root);
    remove_remains(root);
    SharedState* shared = map_state(state_path(root), O_CREAT | O_EXCL);
    shared->host_id = random_id();
    shared->started = monotonic_now();
    host_file.copy(shared->host_file, sizeof shared->host_file - 1);
    shared->magic = kMagic;
    unmap_state(shared);
}

void State::clean(const fs::path& root) noexcept {
    const OwnCalls own;
    remove_remains(root);
    std::error_code error;
    for (const char* made : {"proc", "dev"}) fs::remove_all(root / made, error);
    for (const fs::directory_entry& entry : fs::directory_iterator(root / ".hostsim", error)) {
        const std::string name = entry.path().filename();
        if (name != "turn" && name != "users") fs::remove_all(entry.path(), error);
    }
}

State* State::current() noexcept { return current_state.load(std::memory_order_acquire); }

uint64_t State::host_id() const noexcept { return shared_->host_id; }

std::string State::host_file() const { return shared_->host_file; }

std::chrono::nanoseconds State::age() const noexcept {
    return std::chrono::nanoseconds(monotonic_now() - shared_->started);
}

std::atomic<uint64_t>& State::counter(std::string_view name) {
    const uint64_t wanted = hash(name);
    for (size_t i = 0; i < kCounterSlots; ++i) {
        SharedCounter& slot = shared_->counters[(wanted + i) % kCounterSlots];
        uint64_t there = 0;
        if (slot.name.compare_exchange_strong(there, wanted) || there == wanted) return slot.value;
    }
    throw std::length_error("the simulated host has no room for another counter");
}

key_t State::semaphore_key(key_t key) noexcept {
    const uint64_t mixed = mix(shared_->host_id ^ mix(static_cast<uint32_t>(key)));
    const auto machine_key = static_cast<uint32_t>(mixed & 0x7fffffff) | 1u;  // never IPC_PRIVATE
    const uint64_t wanted = kSlotTaken | machine_key;
    for (size_t i = 0; i < kSemaphoreSlots; ++i) {
        auto& slot = shared_->semaphores[(machine_key + i) % kSemaphoreSlots];
        uint64_t there = 0;
        if (slot.compare_exchange_strong(there, wanted) || there == wanted)
            return static_cast<key_t>(machine_key);
    }
    return -1;
}

}  // namespace hostsim
