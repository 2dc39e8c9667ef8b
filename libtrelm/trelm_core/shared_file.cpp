// Opens the file of the shared database. It creates a file of full size, extends a file of an older version,
// and replaces a file that another user made or that has a second name.

#include "shared_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "shared_layout.h"
#include "trelm_dbg.h"
#include "trelm_system.h"

namespace {

using trelm::detail::Descriptor;
using trelm::detail::error;
using trelm::detail::Heap;
using trelm::detail::Piece;

constexpr size_t kFileSize = sizeof(trelm_shared_db);
// Anyone can create something at the path. O_NOFOLLOW refuses links. O_NONBLOCK keeps a pipe from blocking
// the open.
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
constexpr int kTries = 16;
constexpr char kCannotCreate[] = ": Unable to create shared data file. errno=";

bool write_whole(int fd, const uint8_t* bytes, size_t count) {
    const trelm::detail::QuietWrites quiet;
    while (count) {
        ssize_t written = write(fd, bytes, count);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

bool read_whole(int fd, uint8_t* bytes, size_t count) {
    while (count) {
        ssize_t got = read(fd, bytes, count);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        count -= static_cast<size_t>(got);
    }
    return true;
}

int fail(const char* func, const char* text) {
    error(func, Piece(text, errno));
    return -1;
}

// What exists at the path.
enum class Found {
    nothing,
    usable,
    foreign,   // another user's, or a file with a second name
    unusable,  // root's, but not a regular file
};

Found look_at(const char* path, const Descriptor& fd, struct stat& status) {
    if ((fd ? fstat(fd.get(), &status) : lstat(path, &status)) != 0)
        return fd ? Found::unusable : Found::nothing;
    const bool is_file = S_ISREG(status.st_mode);
    if (!trelm::detail::is_trusted(status.st_uid) || (is_file && status.st_nlink > 1)) return Found::foreign;
    return fd && is_file ? Found::usable : Found::unusable;
}

// Fills a new file with zeros. The descriptor, or -1.
int fill(const char* func, const char* path, Descriptor& fd) {
    Heap<uint8_t> zeros(kFileSize);
    if (!zeros) return fail(func, ": malloc tmp mem failed=");
    const char* failure = !write_whole(fd.get(), zeros.get(), kFileSize)
                              ? ": Unable to write completely to shared data file. errno="
                          : fsync(fd.get()) != 0 ? ": fsync failed. errno="
                                                 : nullptr;
    if (!failure) return fd.let_go();
    fail(func, failure);
    fd.reset();
    if (remove(path) != 0) fail(func, ": Unable to remove shared data file. errno=");
    return -1;
}

// The old contents keep their offsets; zeros follow them. The descriptor, or -1.
int upgrade(const char* func, int fd, size_t old_size) {
    Heap<uint8_t> old(old_size);
    if (!old) return fail(func, ": malloc failed=");
    if (!read_whole(fd, old.get(), old_size)) return fail(func, ": Unable to read shared data file. errno=");
    Heap<uint8_t> grown(kFileSize);
    if (!grown) return fail(func, ": Unable to alloc new shared data buf. errno=");
    memcpy(grown.get(), old.get(), old_size);
    const char* failure =
        lseek(fd, 0, SEEK_SET) != 0 ? ": Unable to seek to beginning of shared data file. errno="
        : !write_whole(fd, grown.get(), kFileSize) ? ": Unable to upgrade shared data file. errno="
        : fsync(fd) != 0                           ? ": fsync failed for existing file. errno="
                                                   : nullptr;
    if (failure) return fail(func, failure);
    trelm::detail::trace(func, ": done upgrading shared data file.");
    return fd;
}

// Uses an existing file. The descriptor, or -1.
int take_over(const char* func, Descriptor& fd, const struct stat& status) {
    // A process that may write to the file could truncate it while it is mapped.
    constexpr mode_t kOthersWrite = S_IWGRP | S_IWOTH;
    if (status.st_mode & kOthersWrite) fchmod(fd.get(), status.st_mode & ~kOthersWrite & ALLPERMS);
    const auto size = static_cast<size_t>(status.st_size);
    return size < kFileSize && upgrade(func, fd.get(), size) == -1 ? -1 : fd.let_go();
}

}  // namespace

int trelm::detail::open_shared_file(const char* func_name, const char* path) {
    // Another user may create something at the path each time after the removal.
    for (int tries = 0; tries < kTries; ++tries) {
        Descriptor fd(open_file(path, kOpenFlags));
        const int open_error = fd ? EEXIST : errno;
        struct stat status;
        switch (look_at(path, fd, status)) {
            case Found::nothing:
                fd.reset(open_file(path, kOpenFlags | O_CREAT | O_EXCL, 0644));
                if (fd) return fill(func_name, path, fd);
                if (errno != EEXIST) return fail(func_name, kCannotCreate);
                break;
            case Found::usable:
                return take_over(func_name, fd, status);
            case Found::foreign:
                if (remove(path) != 0 && errno != ENOENT) return fail(func_name, kCannotCreate);
                break;
            case Found::unusable:
                errno = open_error;
                return fail(func_name, kCannotCreate);
        }
    }
    errno = EEXIST;
    return fail(func_name, kCannotCreate);
}
