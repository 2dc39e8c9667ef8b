// paths.cpp - calls of which only a path has to be redirected, in every variant of libc. Calls that open
// files are in descriptors.cpp, the stat family in file_status.cpp.
//
// Variadic functions of libc are defined here with their optional argument. It travels in a register, and one
// that the program left out is passed on without being used.
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <glob.h>
#include <spawn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/types.h>
#include <utime.h>

#include <cstring>

#include "arguments.h"
#include "interpose.h"

namespace hostsim {
namespace {

// Reads the target of a link with `read(text, size)`. What the program's buffer has room for is cut from the
// path that programs of the host use: the one below the root is longer.
template <typename Read>
ssize_t read_target(char* text, size_t size, const Read& read) noexcept {
    const State* state = serving_state();
    PathBuffer whole;
    if (state == nullptr || size == 0) return read(text, size);
    const ssize_t length = read(whole, sizeof whole);
    if (length < 0) return length;
    const std::string_view seen = seen_path({whole, static_cast<size_t>(length)}, state->root());
    return static_cast<ssize_t>(seen.copy(text, size));
}

char* shown(char* path) noexcept {
    show_path(path);
    return path;
}

}  // namespace

using Statfs = struct statfs;
using Statfs64 = struct statfs64;
using Statvfs = struct statvfs;
using Statvfs64 = struct statvfs64;

// ---- Access and file systems

INTERPOSE(int, access, (const char* path, int mode), (Look(path), mode))
INTERPOSE(int, eaccess, (const char* path, int mode), (Look(path), mode))
INTERPOSE(int, euidaccess, (const char* path, int mode), (Look(path), mode))
INTERPOSE(int, faccessat, (int dir, const char* path, int mode, int flags), (dir, Look(path), mode, flags))
INTERPOSE(int, statfs, (const char* path, Statfs* status), (Path(path), status))
INTERPOSE(int, statfs64, (const char* path, Statfs64* status), (Path(path), status))
INTERPOSE(int, statvfs, (const char* path, Statvfs* status), (Path(path), status))
INTERPOSE(int, statvfs64, (const char* path, Statvfs64* status), (Path(path), status))
INTERPOSE(long, pathconf, (const char* path, int name), (Path(path), name))
INTERPOSE(key_t, ftok, (const char* path, int project), (Path(path), project))
INTERPOSE(int, inotify_add_watch, (int fd, const char* path, uint32_t mask), (fd, Path(path), mask))

// ---- Directories and trees

using Filter = int (*)(const dirent*);
using Filter64 = int (*)(const dirent64*);
using Order = int (*)(const dirent**, const dirent**);
using Order64 = int (*)(const dirent64**, const dirent64**);

INTERPOSE(DIR*, opendir, (const char* path), (Path(path)))
INTERPOSE(int, scandir, (const char* path, dirent*** names, Filter filter, Order order),
          (Path(path), names, filter, order))
INTERPOSE(int, scandir64, (const char* path, dirent64*** names, Filter64 filter, Order64 order),
          (Path(path), names, filter, order))
INTERPOSE(int, scandirat, (int dir, const char* path, dirent*** names, Filter filter, Order order),
          (dir, Path(path), names, filter, order))
INTERPOSE(int, scandirat64, (int dir, const char* path, dirent64*** names, Filter64 filter, Order64 order),
          (dir, Path(path), names, filter, order))
INTERPOSE(int, ftw, (const char* path, __ftw_func_t visit, int depth), (Path(path), visit, depth))
INTERPOSE(int, ftw64, (const char* path, __ftw64_func_t visit, int depth), (Path(path), visit, depth))
INTERPOSE(int, nftw, (const char* path, __nftw_func_t visit, int depth, int flags),
          (Path(path), visit, depth, flags))
INTERPOSE(int, nftw64, (const char* path, __nftw64_func_t visit, int depth, int flags),
          (Path(path), visit, depth, flags))
INTERPOSE(int, chdir, (const char* path), (Path(path)))
INTERPOSE(int, chroot, (const char* path), (Path(path)))
INTERPOSE(int, mkdir, (const char* path, mode_t mode), (Path(path), mode))
INTERPOSE(int, mkdirat, (int dir, const char* path, mode_t mode), (dir, Path(path), mode))
INTERPOSE(int, rmdir, (const char* path), (Path(path)))

template <typename Glob>
static int shown_matches(int result, Glob* matches) noexcept {
    if (result != 0 || matches == nullptr) return result;
    const size_t skipped = (matches->gl_flags & GLOB_DOOFFS) != 0 ? matches->gl_offs : 0;
    for (size_t i = 0; i < matches->gl_pathc; ++i) show_path(matches->gl_pathv[skipped + i]);
    return result;
}
using GlobError = int (*)(const char*, int);

INTERPOSED(int, glob, (const char* pattern, int flags, GlobError error, glob_t* matches)) {
    return shown_matches(NEXT(glob)(Path(pattern), flags, error, matches), matches);
}
INTERPOSED(int, glob64, (const char* pattern, int flags, GlobError error, glob64_t* matches)) {
    return shown_matches(NEXT(glob64)(Path(pattern), flags, error, matches), matches);
}

// ---- Names: making, removing, moving

INTERPOSE(int, unlink, (const char* path), (Path(path)))
INTERPOSE(int, unlinkat, (int dir, const char* path, int flags), (dir, Path(path), flags))
INTERPOSE(int, remove, (const char* path), (Path(path)))
INTERPOSE(int, rename, (const char* from, const char* to), (Path(from), Path(to)))
INTERPOSE(int, renameat, (int from_dir, const char* from, int to_dir, const char* to),
          (from_dir, Path(from), to_dir, Path(to)))
INTERPOSE(int, renameat2, (int from_dir, const char* from, int to_dir, const char* to, unsigned flags),
          (from_dir, Path(from), to_dir, Path(to), flags))
INTERPOSE(int, link, (const char* from, const char* to), (Path(from), Path(to)))
INTERPOSE(int, linkat, (int from_dir, const char* from, int to_dir, const char* to, int flags),
          (from_dir, Path(from), to_dir, Path(to), flags))
// The kernel follows links without asking the simulator, so a link holds the path below the root.
INTERPOSE(int, symlink, (const char* target, const char* path), (Path(target), Path(path)))
INTERPOSE(int, symlinkat, (const char* target, int dir, const char* path), (Path(target), dir, Path(path)))
INTERPOSE(int, mknod, (const char* path, mode_t mode, dev_t device), (Path(path), mode, device))
INTERPOSE(int, mknodat, (int dir, const char* path, mode_t mode, dev_t device),
          (dir, Path(path), mode, device))
INTERPOSE(int, __xmknod, (int version, const char* path, mode_t mode, dev_t* device),
          (version, Path(path), mode, device))
INTERPOSE(int, __xmknodat, (int version, int dir, const char* path, mode_t mode, dev_t* device),
          (version, dir, Path(path), mode, device))
INTERPOSE(int, mkfifo, (const char* path, mode_t mode), (Path(path), mode))
INTERPOSE(int, mkfifoat, (int dir, const char* path, mode_t mode), (dir, Path(path), mode))

INTERPOSED(ssize_t, readlink, (const char* path, char* text, size_t size)) {
    return read_target(text, size,
                       [&](char* to, size_t most) { return NEXT(readlink)(Path(path), to, most); });
}
INTERPOSED(ssize_t, readlinkat, (int dir, const char* path, char* text, size_t size)) {
    return read_target(text, size,
                       [&](char* to, size_t most) { return NEXT(readlinkat)(dir, Path(path), to, most); });
}
// Fortified programs call these with the size of their buffer; libc ends the program if `size` is larger.
INTERPOSED(ssize_t, __readlink_chk, (const char* path, char* text, size_t size, size_t room)) {
    if (size > room) return NEXT(__readlink_chk)(path, text, size, room);
    return hostsim_at_readlink(path, text, size);
}
INTERPOSED(ssize_t, __readlinkat_chk, (int dir, const char* path, char* text, size_t size, size_t room)) {
    if (size > room) return NEXT(__readlinkat_chk)(dir, path, text, size, room);
    return hostsim_at_readlinkat(dir, path, text, size);
}
INTERPOSED(char*, realpath, (const char* path, char* text)) {
    return shown(NEXT(realpath)(Path(path), text));
}
INTERPOSED(char*, __realpath_chk, (const char* path, char* text, size_t room)) {
    return shown(NEXT(__realpath_chk)(Path(path), text, room));
}
INTERPOSED(char*, canonicalize_file_name, (const char* path)) {
    return shown(NEXT(canonicalize_file_name)(Path(path)));
}
// The path below the root is longer than the one that the program's buffer is for.
INTERPOSED(char*, getcwd, (char* text, size_t size)) {
    if (text == nullptr || serving_state() == nullptr) return shown(NEXT(getcwd)(text, size));
    PathBuffer whole;
    if (NEXT(getcwd)(whole, sizeof whole) == nullptr) return nullptr;
    const size_t length = std::strlen(shown(whole)) + 1;
    if (length <= size) return static_cast<char*>(std::memcpy(text, whole, length));
    errno = size == 0 ? EINVAL : ERANGE;
    return nullptr;
}
INTERPOSED(char*, __getcwd_chk, (char* text, size_t size, size_t room)) {
    return size > room ? NEXT(__getcwd_chk)(text, size, room) : hostsim_at_getcwd(text, size);
}
INTERPOSED(char*, get_current_dir_name, ()) { return shown(NEXT(get_current_dir_name)()); }

// ---- Attributes

INTERPOSE(int, chmod, (const char* path, mode_t mode), (Path(path), mode))
INTERPOSE(int, lchmod, (const char* path, mode_t mode), (Path(path), mode))
INTERPOSE(int, fchmodat, (int dir, const char* path, mode_t mode, int flags), (dir, Path(path), mode, flags))
INTERPOSE(int, chown, (const char* path, uid_t user, gid_t group), (Path(path), user, group))
INTERPOSE(int, lchown, (const char* path, uid_t user, gid_t group), (Path(path), user, group))
INTERPOSE(int, fchownat, (int dir, const char* path, uid_t user, gid_t group, int flags),
          (dir, Path(path), user, group, flags))
INTERPOSE(int, truncate, (const char* path, off_t length), (Path(path), length))
INTERPOSE(int, truncate64, (const char* path, off64_t length), (Path(path), length))
INTERPOSE(int, utime, (const char* path, const utimbuf* times), (Path(path), times))
INTERPOSE(int, utimes, (const char* path, const timeval* times), (Path(path), times))
INTERPOSE(int, lutimes, (const char* path, const timeval* times), (Path(path), times))
INTERPOSE(int, futimesat, (int dir, const char* path, const timeval* times), (dir, Path(path), times))
INTERPOSE(int, utimensat, (int dir, const char* path, const timespec* times, int flags),
          (dir, Path(path), times, flags))
INTERPOSE(ssize_t, getxattr, (const char* path, const char* name, void* value, size_t size),
          (Path(path), name, value, size))
INTERPOSE(ssize_t, lgetxattr, (const char* path, const char* name, void* value, size_t size),
          (Path(path), name, value, size))
INTERPOSE(int, setxattr, (const char* path, const char* name, const void* value, size_t size, int flags),
          (Path(path), name, value, size, flags))
INTERPOSE(int, lsetxattr, (const char* path, const char* name, const void* value, size_t size, int flags),
          (Path(path), name, value, size, flags))
INTERPOSE(ssize_t, listxattr, (const char* path, char* list, size_t size), (Path(path), list, size))
INTERPOSE(ssize_t, llistxattr, (const char* path, char* list, size_t size), (Path(path), list, size))
INTERPOSE(int, removexattr, (const char* path, const char* name), (Path(path), name))
INTERPOSE(int, lremovexattr, (const char* path, const char* name), (Path(path), name))

// ---- Temporary names

INTERPOSE(int, mkstemp, (char* text), (Template(text)))
INTERPOSE(int, mkstemp64, (char* text), (Template(text)))
INTERPOSE(int, mkostemp, (char* text, int flags), (Template(text), flags))
INTERPOSE(int, mkostemp64, (char* text, int flags), (Template(text), flags))
INTERPOSE(int, mkstemps, (char* text, int suffix), (Template(text), suffix))
INTERPOSE(int, mkstemps64, (char* text, int suffix), (Template(text), suffix))
INTERPOSE(int, mkostemps, (char* text, int suffix, int flags), (Template(text), suffix, flags))
INTERPOSE(int, mkostemps64, (char* text, int suffix, int flags), (Template(text), suffix, flags))
INTERPOSED(char*, mkdtemp, (char* text)) { return NEXT(mkdtemp)(Template(text)) != nullptr ? text : nullptr; }
INTERPOSED(char*, mktemp, (char* text)) {
    NEXT(mktemp)(Template(text));
    return text;
}

// ---- Files that a child process opens

INTERPOSE(int, posix_spawn_file_actions_addopen,
          (posix_spawn_file_actions_t * actions, int fd, const char* path, int flags, mode_t mode),
          (actions, fd, Path(path), flags, mode))
INTERPOSE(int, posix_spawn_file_actions_addchdir_np, (posix_spawn_file_actions_t * actions, const char* path),
          (actions, Path(path)))

}  // namespace hostsim
