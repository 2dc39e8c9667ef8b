#include "shared_state.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <system_error>

#include "root_layout.h"

namespace hostsim {
namespace {

constexpr uint64_t kMagic = 0x32746174736d6c72;  // changes with the layout of SharedState

[[noreturn]] void fail(const OwnDirectory& root, int error) {
    throw std::system_error(error, std::generic_category(), root.path().string() + layout::kState);
}

MappedState map_file(const OwnDirectory& root, const Descriptor& file) {
    void* memory = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (memory == MAP_FAILED) fail(root, errno);
    return MappedState(static_cast<SharedState*>(memory));
}

uint64_t random_id() {
    uint64_t id = 0;
    while (id == 0) {
        if (getrandom(&id, sizeof id, 0) != sizeof id) id = static_cast<uint64_t>(monotonic_now()) ^ getpid();
    }
    return id;
}

// Removes a set that the caller created. The file lists the keys that the host's programs use; the machine's
// keys are derived from the host's random number, so that a forged list names no set of another host or
// program.
bool remove_set(key_t key) {
    const int set = semget(key, 0, 0);
    semid_ds found{};
    union {
        int value;
        semid_ds* status;
    } argument{.status = &found};
    return set >= 0 && semctl(set, 0, IPC_STAT, argument) == 0 && found.sem_perm.uid == geteuid() &&
           found.sem_perm.cuid == geteuid() && found.sem_perm.__key == key && semctl(set, 0, IPC_RMID) == 0;
}

}  // namespace

void Unmap::operator()(SharedState* shared) const noexcept { munmap(shared, sizeof(SharedState)); }

MappedState map_state(const OwnDirectory& root) {
    const Descriptor file = root.open_file(layout::kState, O_RDWR);
    struct stat status {};
    if (fstat(file.get(), &status) != 0) fail(root, errno);
    if (status.st_size != sizeof(SharedState)) fail(root, EPROTO);
    MappedState shared = map_file(root, file);
    if (shared->magic != kMagic) fail(root, EPROTO);
    return shared;
}

void create_state(const OwnDirectory& root, std::string_view host_file) {
    const Descriptor file = root.open_file(layout::kState, O_RDWR | O_CREAT | O_EXCL);
    // A full disk would otherwise show as SIGBUS when a process writes to the mapping.
    if (const int error = posix_fallocate(file.get(), 0, sizeof(SharedState)); error != 0) fail(root, error);
    const MappedState shared = map_file(root, file);
    shared->host_id = random_id();
    shared->started = monotonic_now();
    host_file.copy(shared->host_file, sizeof shared->host_file - 1);
    shared->magic = kMagic;
}

std::optional<size_t> remove_state(const OwnDirectory& root) noexcept {
    size_t sets = 0;
    try {
        const MappedState shared = map_state(root);
        for (const auto& slot : shared->semaphores) {
            const uint64_t taken = slot.load();
            if (taken == 0) continue;
            sets += remove_set(machine_key(shared->host_id, static_cast<key_t>(taken))) ? 1 : 0;
        }
    } catch (const std::exception&) {
        // There is no shared file, or a foreign one. Then there are no semaphore sets to remove.
    }
    return root.remove_file(layout::kState) ? std::optional(sets) : std::nullopt;
}

key_t machine_key(uint64_t host_id, key_t key) noexcept {
    const uint64_t mixed = mix(host_id ^ mix(static_cast<uint32_t>(key)));
    return static_cast<key_t>((mixed & 0x7fffffff) | 1u);  // never IPC_PRIVATE
}

int64_t monotonic_now() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

uint64_t mix(uint64_t value) noexcept {
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9;
    value = (value ^ (value >> 27)) * 0x94d049bb133111eb;
    return value ^ (value >> 31);
}

}  // namespace hostsim
