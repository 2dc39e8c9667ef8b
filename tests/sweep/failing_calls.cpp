// failing_calls.cpp - a table of the functions that can fail. A failing call does nothing. Closing functions
// close and then report a failure, as the kernel does.
#include <dirent.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "../support/libc_replacements.h"
#include "sweep.h"
#include "vmkmgmt.h"

namespace trelm::sweep {
namespace {

constinit Failing failing_calls = Failing::none;
constinit uint64_t failing_from = 0;
constinit thread_local Trail* run = nullptr;  // null: calls of this thread are not counted

bool fails(const char* name, int error) {
    if (run == nullptr) return false;
    const uint64_t call = ++run->calls;
    const bool later = failing_calls == Failing::onwards && call > failing_from;
    if (failing_calls == Failing::none || (call != failing_from && !later)) return false;
    if (run->first_failed == nullptr) run->first_failed = name;
    errno = error;
    return true;
}

}  // namespace

void arm(Failing failing, uint64_t n, Trail& trail) {
    failing_calls = failing;
    failing_from = n;
    run = &trail;
}

void disarm() { run = nullptr; }

// ---- Memory

#ifdef TRELM_SANITIZED
size_t live_blocks() { return 0; }
#else
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void __libc_free(void* block);
[[gnu::visibility("default")]] void* before_malloc(size_t size) __asm__("malloc");
[[gnu::visibility("default")]] void* before_calloc(size_t count, size_t size) __asm__("calloc");
[[gnu::visibility("default")]] void before_free(void* block) __asm__("free");
}

// The live blocks of the library. There are never many.
static constinit size_t block_count = 0;
static constinit void* blocks[4096] = {};
static constinit std::mutex blocks_mutex;

size_t live_blocks() { return block_count; }

static void* remember(void* block) {
    const std::lock_guard lock(blocks_mutex);
    if (block_count == std::size(blocks)) abort();
    return blocks[block_count++] = block;
}

void* before_malloc(size_t size) {
    if (!CALLED_BY_LIBRARY()) return __libc_malloc(size);
    return fails("malloc", ENOMEM) ? nullptr : remember(__libc_malloc(size));
}

void* before_calloc(size_t count, size_t size) {
    if (!CALLED_BY_LIBRARY()) return __libc_calloc(count, size);
    return fails("calloc", ENOMEM) ? nullptr : remember(__libc_calloc(count, size));
}

// Any caller of free(): a list of the library is emptied through a pointer to this function.
void before_free(void* block) {
    if (block != nullptr) {
        const std::lock_guard lock(blocks_mutex);
        void** const end = blocks + block_count;
        void** const found = std::find(blocks, end, block);
        if (found != end) *found = blocks[--block_count];
    }
    __libc_free(block);
}
#endif

// ---- Everything else

#define CAN_FAIL(result, name, parameters, arguments, failure, error)                            \
    REPLACES_LIBC(result, name, parameters) {                                                    \
        return CALLED_BY_LIBRARY() && fails(#name, error) ? (failure) : NEXT_OF(name) arguments; \
    }

// For functions that release something, which they do in any case.
#define CAN_FAIL_AFTERWARDS(name, type, error)                            \
    REPLACES_LIBC(int, name, (type held)) {                               \
        const int outcome = NEXT_OF(name)(held);                          \
        return CALLED_BY_LIBRARY() && fails(#name, error) ? -1 : outcome; \
    }

CAN_FAIL(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode), -1, EACCES)
CAN_FAIL(int, fstat, (int fd, struct stat* status), (fd, status), -1, EIO)
CAN_FAIL(int, lstat, (const char* path, struct stat* status), (path, status), -1, EIO)
CAN_FAIL(int, fchmod, (int fd, mode_t mode), (fd, mode), -1, EPERM)
CAN_FAIL(ssize_t, read, (int fd, void* to, size_t count), (fd, to, count), -1, EIO)
CAN_FAIL(ssize_t, write, (int fd, const void* from, size_t count), (fd, from, count), -1, ENOSPC)
CAN_FAIL(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), -1, EINVAL)
CAN_FAIL(int, fsync, (int fd), (fd), -1, EIO)
CAN_FAIL(int, flock, (int fd, int operation), (fd, operation), -1, ENOLCK)
CAN_FAIL(void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t offset),
         (at, size, access, flags, fd, offset), MAP_FAILED, ENOMEM)
CAN_FAIL(int, msync, (void* at, size_t size, int flags), (at, size, flags), -1, EIO)
CAN_FAIL(int, remove, (const char* path), (path), -1, EACCES)
CAN_FAIL_AFTERWARDS(close, int, EIO)

CAN_FAIL(FILE*, fdopen, (int fd, const char* mode), (fd, mode), nullptr, ENOMEM)
CAN_FAIL(char*, fgets, (char* text, int size, FILE* file), (text, size, file), nullptr, EIO)
CAN_FAIL(int, fputs, (const char* text, FILE* file), (text, file), EOF, ENOSPC)
CAN_FAIL(int, fflush, (FILE * file), (file), EOF, ENOSPC)
CAN_FAIL_AFTERWARDS(fclose, FILE*, ENOSPC)
CAN_FAIL(DIR*, opendir, (const char* path), (path), nullptr, EMFILE)
CAN_FAIL(dirent*, readdir, (DIR * directory), (directory), nullptr, EBADF)

CAN_FAIL(int, ioctl, (int fd, unsigned long request, void* to), (fd, request, to), -1, EIO)
CAN_FAIL(int, semget, (key_t key, int count, int flags), (key, count, flags), -1, ENOSPC)
CAN_FAIL(int, semctl, (int set, int n, int command, void* to), (set, n, command, to), -1, EPERM)
CAN_FAIL(int, semop, (int set, sembuf* steps, size_t count), (set, steps, count), -1, ENOMEM)
CAN_FAIL(int, uname, (utsname * name), (name), -1, EFAULT)
CAN_FAIL(tm*, localtime_r, (const time_t* time, tm* local), (time, local), nullptr, EOVERFLOW)

using Signature = vmk_MgmtApiSignature;
CAN_FAIL(int, vmk_MgmtUserInit, (Signature * signature, uint64_t cookie, uint64_t* handle),
         (signature, cookie, handle), EINVAL, EINVAL)
CAN_FAIL(int, vmk_MgmtUserCallbackInvokeInt,
         (uint64_t handle, uint64_t instance, uint64_t callback, uint32_t count, void* parameter),
         (handle, instance, callback, count, parameter), -1, EIO)

// The output of the process listing without starting processes: only this process has the library loaded. Its
// pipe has a descriptor that must be closed.
REPLACES_LIBC(FILE*, popen, (const char* command, const char* mode)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(popen)(command, mode);
    if (fails("popen", EMFILE)) return nullptr;
    int ends[2];
    if (pipe(ends) != 0 || write(ends[1], "2\n", 2) != 2) abort();
    close(ends[1]);
    return fdopen(ends[0], "r");
}

REPLACES_LIBC(int, pclose, (FILE * file)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(pclose)(file);
    fclose(file);
    return fails("pclose", ECHILD) ? -1 : 0;
}

}  // namespace trelm::sweep
