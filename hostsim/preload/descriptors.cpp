// descriptors.cpp - opening files, and descriptors of the legacy driver's node. Such a descriptor is a real
// one of another character device, so that every call on a descriptor works; only ioctl and close go to the
// model. A set of numbers tells which descriptors these are. It follows dup and survives fork.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "arguments.h"
#include "interpose.h"

namespace hostsim {
namespace {

class NodeDescriptors {
  public:
    bool contains(int fd) const noexcept { return in_range(fd) && (word(fd).load() & bit(fd)) != 0; }
    void insert(int fd) noexcept {
        if (in_range(fd)) word(fd) |= bit(fd);
    }
    void erase(int fd) noexcept {
        if (contains(fd)) word(fd) &= ~bit(fd);
    }
    void erase(unsigned first, unsigned last) noexcept {
        for (size_t fd = first; fd <= last && fd < kLimit; fd = (fd / 64 + 1) * 64) {
            if (words_[fd / 64].load() == 0) continue;
            for (size_t each = fd; each <= last && each < (fd / 64 + 1) * 64; ++each)
                erase(static_cast<int>(each));
        }
    }
    void assign(int fd, bool is_node) noexcept { is_node ? insert(fd) : erase(fd); }

  private:
    static constexpr unsigned kLimit = 1u << 20;  // the kernel's default limit (fs.nr_open)

    static bool in_range(int fd) { return fd >= 0 && static_cast<unsigned>(fd) < kLimit; }
    static uint64_t bit(int fd) { return uint64_t{1} << (fd % 64); }
    std::atomic<uint64_t>& word(int fd) noexcept { return words_[static_cast<size_t>(fd) / 64]; }
    const std::atomic<uint64_t>& word(int fd) const noexcept { return words_[static_cast<size_t>(fd) / 64]; }

    std::array<std::atomic<uint64_t>, kLimit / 64> words_{};
};
constinit NodeDescriptors node_descriptors;

// The host whose node `fd` is, else null. The number may have been closed by a call that is not interposed,
// and may now belong to another file.
Host* host_of_node(int fd) noexcept {
    if (!node_descriptors.contains(fd)) return nullptr;
    const OwnCalls own;
    const KeepErrno keep;
    struct stat status {};
    const bool is_still =
        fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
    if (!is_still) node_descriptors.erase(fd);
    return is_still ? Host::current() : nullptr;
}

int injected_error(Host* host, Operation operation) noexcept {
    const OwnCalls own;
    return host == nullptr ? 0 : host->node_fault(operation);
}

int descriptor(int fd) { return fd; }
int descriptor(FILE* file) { return file == nullptr ? -1 : fileno(file); }

// Opens `path`, redirected, with `next`. Opening the node fails if the model says so.
template <typename Opened, typename Call>
Opened open_by(const char* path, Opened failed, const Call& next) noexcept {
    const Look look(path);
    if (look.is_device()) {
        if (const int error = injected_error(serving_host(), Operation::open); error != 0) {
            errno = error;
            return failed;
        }
    }
    Opened opened = next(look);
    if (serving_state() != nullptr && opened != failed)
        node_descriptors.assign(descriptor(opened), look.is_device());
    return opened;
}

template <typename Call>
int close_by(int fd, Call& next) noexcept {
    const int error = injected_error(host_of_node(fd), Operation::close);
    node_descriptors.erase(fd);
    const int result = next(fd);
    if (error == 0 || result != 0) return result;
    errno = error;
    return -1;
}

int duplicated(int from, int to) noexcept {
    if (to >= 0) node_descriptors.assign(to, node_descriptors.contains(from));
    return to;
}

}  // namespace

#define INTERPOSE_OPEN(name, parameters, ...)                                                      \
    INTERPOSED(int, name, parameters) {                                                            \
        return open_by(path, -1, [&](const char* redirected) { return NEXT(name)(__VA_ARGS__); }); \
    }
INTERPOSE_OPEN(open, (const char* path, int flags, mode_t mode), redirected, flags, mode)
INTERPOSE_OPEN(open64, (const char* path, int flags, mode_t mode), redirected, flags, mode)
INTERPOSE_OPEN(__open, (const char* path, int flags, mode_t mode), redirected, flags, mode)
INTERPOSE_OPEN(__open64, (const char* path, int flags, mode_t mode), redirected, flags, mode)
INTERPOSE_OPEN(__open_2, (const char* path, int flags), redirected, flags)
INTERPOSE_OPEN(__open64_2, (const char* path, int flags), redirected, flags)
INTERPOSE_OPEN(openat, (int dir, const char* path, int flags, mode_t mode), dir, redirected, flags, mode)
INTERPOSE_OPEN(openat64, (int dir, const char* path, int flags, mode_t mode), dir, redirected, flags, mode)
INTERPOSE_OPEN(__openat_2, (int dir, const char* path, int flags), dir, redirected, flags)
INTERPOSE_OPEN(__openat64_2, (int dir, const char* path, int flags), dir, redirected, flags)
INTERPOSE_OPEN(creat, (const char* path, mode_t mode), redirected, mode)
INTERPOSE_OPEN(creat64, (const char* path, mode_t mode), redirected, mode)
#undef INTERPOSE_OPEN

#define INTERPOSE_STREAM(name, parameters, ...)                                                 \
    INTERPOSED(FILE*, name, parameters) {                                                       \
        return open_by<FILE*>(path, nullptr,                                                    \
                              [&](const char* redirected) { return NEXT(name)(__VA_ARGS__); }); \
    }
INTERPOSE_STREAM(fopen, (const char* path, const char* mode), redirected, mode)
INTERPOSE_STREAM(fopen64, (const char* path, const char* mode), redirected, mode)
INTERPOSE_STREAM(freopen, (const char* path, const char* mode, FILE* file), redirected, mode, file)
INTERPOSE_STREAM(freopen64, (const char* path, const char* mode, FILE* file), redirected, mode, file)
#undef INTERPOSE_STREAM

INTERPOSED(int, close, (int fd)) { return close_by(fd, NEXT(close)); }
INTERPOSED(int, __close, (int fd)) { return close_by(fd, NEXT(__close)); }
INTERPOSED(int, fclose, (FILE * file)) {
    if (file != nullptr && serving_state() != nullptr) node_descriptors.erase(descriptor(file));
    return NEXT(fclose)(file);
}
INTERPOSED(int, close_range, (unsigned first, unsigned last, int flags)) {
    const int result = NEXT(close_range)(first, last, flags);
    if (result == 0 && flags == 0) node_descriptors.erase(first, last);
    return result;
}
INTERPOSED(void, closefrom, (int first)) {
    NEXT(closefrom)(first);
    node_descriptors.erase(first < 0 ? 0 : static_cast<unsigned>(first), UINT32_MAX);
}

INTERPOSED(int, dup, (int fd)) { return duplicated(fd, NEXT(dup)(fd)); }
INTERPOSED(int, dup2, (int fd, int to)) { return duplicated(fd, NEXT(dup2)(fd, to)); }
INTERPOSED(int, dup3, (int fd, int to, int flags)) { return duplicated(fd, NEXT(dup3)(fd, to, flags)); }

static int controlled(int fd, int command, int result) noexcept {
    return command == F_DUPFD || command == F_DUPFD_CLOEXEC ? duplicated(fd, result) : result;
}
INTERPOSED(int, fcntl, (int fd, int command, void* argument)) {
    return controlled(fd, command, NEXT(fcntl)(fd, command, argument));
}
INTERPOSED(int, fcntl64, (int fd, int command, void* argument)) {
    return controlled(fd, command, NEXT(fcntl64)(fd, command, argument));
}

INTERPOSED(int, ioctl, (int fd, unsigned long request, void* argument)) {
    Host* host = OwnCalls::active() ? nullptr : host_of_node(fd);
    if (host == nullptr) return NEXT(ioctl)(fd, request, argument);
    const OwnCalls own;
    return host->legacy_request(request, argument);
}

}  // namespace hostsim
