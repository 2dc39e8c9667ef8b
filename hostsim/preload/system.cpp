// system.cpp - the system's name, the user, System V semaphores, disks and shell commands.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "arguments.h"
#include "attach.h"
#include "interpose.h"
#include "ownership.h"
#include "root_layout.h"

namespace hostsim {

INTERPOSED(int, uname, (utsname * name)) {
    Host* host = serving_host();
    if (host == nullptr || name == nullptr) return NEXT(uname)(name);
    const OwnCalls own;
    host->fill_utsname(name);
    return 0;
}

INTERPOSED(int, gethostname, (char* text, size_t size)) {
    Host* host = serving_host();
    if (host == nullptr || text == nullptr) return NEXT(gethostname)(text, size);
    const OwnCalls own;
    utsname name{};
    host->fill_utsname(&name);
    const size_t length = strnlen(name.nodename, sizeof name.nodename - 1) + 1;
    std::memcpy(text, name.nodename, std::min(length, size));
    if (length <= size) return 0;
    errno = ENAMETOOLONG;
    return -1;
}

// ---- The user: every identity of the process is the host's effective user

// The host's user, or what `next` returns if there is no host.
template <typename Call>
static uid_t identity(Call& next) noexcept {
    const Host* host = serving_host();
    if (host == nullptr) return next();
    const OwnCalls own;
    return host->effective_user();
}

template <typename Call>
static int identities(Call& next, uid_t* real, uid_t* effective, uid_t* saved) noexcept {
    const Host* host = serving_host();
    if (host == nullptr) return next(real, effective, saved);
    const OwnCalls own;
    *real = *effective = *saved = host->effective_user();
    return 0;
}

INTERPOSED(uid_t, getuid, ()) { return identity(NEXT(getuid)); }
INTERPOSED(uid_t, geteuid, ()) { return identity(NEXT(geteuid)); }
INTERPOSED(gid_t, getgid, ()) { return identity(NEXT(getgid)); }
INTERPOSED(gid_t, getegid, ()) { return identity(NEXT(getegid)); }
INTERPOSED(int, getresuid, (uid_t * real, uid_t* effective, uid_t* saved)) {
    return identities(NEXT(getresuid), real, effective, saved);
}
INTERPOSED(int, getresgid, (gid_t * real, gid_t* effective, gid_t* saved)) {
    return identities(NEXT(getresgid), real, effective, saved);
}

// ---- Semaphores and disks

INTERPOSED(int, semget, (key_t key, int count, int flags)) {
    State* state = serving_state();
    if (state == nullptr || key == IPC_PRIVATE) return NEXT(semget)(key, count, flags);
    const key_t machine_key = state->semaphore_key(key);
    if (machine_key != -1) return NEXT(semget)(machine_key, count, flags);
    errno = ENOSPC;
    return -1;
}

static bool tells_status(int command) {
    return command == IPC_STAT || command == SEM_STAT || command == SEM_STAT_ANY;
}

INTERPOSED(int, semctl, (int set, int number, int command, semid_ds* argument)) {
    const int result = NEXT(semctl)(set, number, command, argument);
    if (result < 0 || !tells_status(command)) return result;
    show_owner(argument->sem_perm.uid, argument->sem_perm.gid);
    show_owner(argument->sem_perm.cuid, argument->sem_perm.cgid);
    return result;
}

// A simulated host need not survive a power failure, and must not keep the machine's disks busy.
INTERPOSED(void, sync, ()) {
    if (serving_state() == nullptr) NEXT(sync)();
}

// ---- Commands

static std::string shell_word(std::string_view text) {
    std::string result = "'";
    for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return result + "'";
}

// `command` with the host's own commands first in PATH, whatever the program has put there.
static std::string on_host(const State& state, const char* command) {
    return "PATH=" + shell_word(state.root() + layout::kCommands) +
           ":${PATH:-/usr/sbin:/usr/bin:/sbin:/bin}\n" + command;
}

INTERPOSED(FILE*, popen, (const char* command, const char* mode)) {
    const State* state = serving_state();
    if (state == nullptr || command == nullptr) return NEXT(popen)(command, mode);
    restore_environment();
    return NEXT(popen)(on_host(*state, command).c_str(), mode);
}

INTERPOSED(int, system, (const char* command)) {
    const State* state = serving_state();
    if (state == nullptr || command == nullptr) return NEXT(system)(command);
    restore_environment();
    return NEXT(system)(on_host(*state, command).c_str());
}

}  // namespace hostsim
