// file_status.cpp - the stat family in every variant of libc. What the user who runs the host owns is shown
// as the host's user's.
#include <fcntl.h>
#include <sys/stat.h>

#include "arguments.h"
#include "interpose.h"
#include "ownership.h"

namespace hostsim {

using Stat = struct stat;
using Stat64 = struct stat64;
using Statx = struct statx;

static int owned(int result, Statx* status) noexcept {
    if (result == 0) show_owner(status->stx_uid, status->stx_gid);
    return result;
}

template <typename Status>
static int owned(int result, Status* status) noexcept {
    if (result == 0) show_owner(status->st_uid, status->st_gid);
    return result;
}

// `arguments` are in parentheses of their own.
#define INTERPOSE_STATUS(name, parameters, arguments) /* NOLINTNEXTLINE(bugprone-macro-parentheses) */ \
    INTERPOSED(int, name, parameters) { return owned(NEXT(name) arguments, status); }

INTERPOSE_STATUS(stat, (const char* path, Stat* status), (Look(path), status))
INTERPOSE_STATUS(stat64, (const char* path, Stat64* status), (Look(path), status))
INTERPOSE_STATUS(lstat, (const char* path, Stat* status), (Look(path), status))
INTERPOSE_STATUS(lstat64, (const char* path, Stat64* status), (Look(path), status))
INTERPOSE_STATUS(fstat, (int fd, Stat* status), (fd, status))
INTERPOSE_STATUS(fstat64, (int fd, Stat64* status), (fd, status))
INTERPOSE_STATUS(fstatat, (int dir, const char* path, Stat* status, int flags),
                 (dir, Look(path), status, flags))
INTERPOSE_STATUS(fstatat64, (int dir, const char* path, Stat64* status, int flags),
                 (dir, Look(path), status, flags))
INTERPOSE_STATUS(statx, (int dir, const char* path, int flags, unsigned mask, Statx* status),
                 (dir, Look(path), flags, mask, status))

// ---- For programs that were built with an older libc; `version` says which record they use

INTERPOSE_STATUS(__xstat, (int version, const char* path, Stat* status), (version, Look(path), status))
INTERPOSE_STATUS(__xstat64, (int version, const char* path, Stat64* status), (version, Look(path), status))
INTERPOSE_STATUS(__lxstat, (int version, const char* path, Stat* status), (version, Look(path), status))
INTERPOSE_STATUS(__lxstat64, (int version, const char* path, Stat64* status), (version, Look(path), status))
INTERPOSE_STATUS(__fxstat, (int version, int fd, Stat* status), (version, fd, status))
INTERPOSE_STATUS(__fxstat64, (int version, int fd, Stat64* status), (version, fd, status))
INTERPOSE_STATUS(__fxstatat, (int version, int dir, const char* path, Stat* status, int flags),
                 (version, dir, Look(path), status, flags))
INTERPOSE_STATUS(__fxstatat64, (int version, int dir, const char* path, Stat64* status, int flags),
                 (version, dir, Look(path), status, flags))
#undef INTERPOSE_STATUS

}  // namespace hostsim
