// Opening the file of the shared database: created full size, grown where an older version left it smaller.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "trelm_core/shared_db.h"
#include "trelm_dbg.h"
#include "trelm_owners.h"

namespace {

using trelm::detail::Descriptor;
using trelm::detail::error;
using trelm::detail::Heap;
using trelm::detail::Piece;

constexpr size_t kFileSize = sizeof(trelm_shared_db);
// The file lies where anyone may put things: no link is followed, nothing waits for a pipe's other end.
constexpr int kOpenFlags = O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

bool write_whole(int fd, const uint8_t* bytes, size_t count) {
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

// `open_error` is why the file could not be opened: where something stands in its place, that is what the
// message shows.
int create_file(const char* func, const char* path, int open_error) {
    Descriptor fd(open(path, kOpenFlags | O_CREAT | O_EXCL, 0644));
    if (!fd) {
        if (errno == EEXIST) errno = open_error;
        return fail(func, ": Unable to create shared data file. errno=");
    }
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

}  // namespace

int trelm::detail::open_shared_file(const char* func_name, const char* path) {
    Descriptor fd(open(path, kOpenFlags));
    if (!fd) return create_file(func_name, path, errno);
    // What is no regular file, or has another name elsewhere, is not ours to write to: as good as not to be
    // opened.
    struct stat status;
    if (fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink > 1) {
        return create_file(func_name, path, EEXIST);
    }
    const auto size = static_cast<size_t>(status.st_size);
    if (size < kFileSize && upgrade(func_name, fd.get(), size) == -1) return -1;
    return fd.let_go();
}
