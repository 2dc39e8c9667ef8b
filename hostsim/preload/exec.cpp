// exec.cpp - starting programs. Paths are redirected, and the new program stays on the host even if the
// environment that it gets lacks the host's variables. Between fork and exec the allocator's lock may be
// held, so everything here lives on the stack.
#include <alloca.h>
#include <spawn.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>

#include "arguments.h"
#include "attach.h"
#include "interpose.h"

namespace hostsim {
namespace {

size_t count(char* const* list) noexcept {
    size_t n = 0;
    while (list != nullptr && list[n] != nullptr) ++n;
    return n;
}

// Points at the variable of `entry` in `list`; null if it is not set there.
char* const* find(char* const* list, const std::string& entry) noexcept {
    const size_t name = entry.find('=') + 1;
    for (; list != nullptr && *list != nullptr; ++list)
        if (std::strncmp(*list, entry.c_str(), name) == 0) return list;
    return nullptr;
}

// Calls `call` with the environment `list` and those of the host's variables that it lacks.
template <typename Call>
int with_environment(char* const* list, const Call& call) noexcept {
    const HostVariables* host = serving_state() == nullptr ? nullptr : host_variables();
    if (host == nullptr) return call(list);
    const size_t given = count(list);
    auto** extended = static_cast<char**>(alloca((given + host->entries.size() + 1) * sizeof(char*)));
    if (given > 0) std::memcpy(extended, list, given * sizeof(char*));
    size_t next = given;
    for (const std::string& entry : host->entries)
        if (find(list, entry) == nullptr) extended[next++] = const_cast<char*>(entry.c_str());
    extended[next] = nullptr;

    // The simulator's objects come first in a preload list of the program's own.
    const std::string& preload = host->entries.front();
    if (char* const* at = find(list, preload);
        at != nullptr && std::strstr(*at, host->preload.c_str()) == nullptr) {
        const char* theirs = std::strchr(*at, '=') + 1;
        const size_t their_size = std::strlen(theirs) + 1;
        char* joined = static_cast<char*>(alloca(preload.size() + 1 + their_size));
        std::memcpy(joined, preload.c_str(), preload.size());
        joined[preload.size()] = ':';
        std::memcpy(joined + preload.size() + 1, theirs, their_size);
        extended[at - list] = joined;
    }
    return call(extended);
}

using Arguments = char* const*;

}  // namespace

INTERPOSED(int, execve, (const char* path, Arguments arguments, Arguments variables)) {
    return with_environment(variables,
                            [&](Arguments list) { return NEXT(execve)(Path(path), arguments, list); });
}
// libc looks up a name without a slash; it is no path and is not redirected.
INTERPOSED(int, execvpe, (const char* name, Arguments arguments, Arguments variables)) {
    return with_environment(variables,
                            [&](Arguments list) { return NEXT(execvpe)(Path(name), arguments, list); });
}
INTERPOSED(int, fexecve, (int fd, Arguments arguments, Arguments variables)) {
    return with_environment(variables, [&](Arguments list) { return NEXT(fexecve)(fd, arguments, list); });
}
INTERPOSED(int, execveat, (int dir, const char* path, Arguments arguments, Arguments variables, int flags)) {
    return with_environment(
        variables, [&](Arguments list) { return NEXT(execveat)(dir, Path(path), arguments, list, flags); });
}
INTERPOSED(int, execv, (const char* path, Arguments arguments)) {
    return hostsim_at_execve(path, arguments, environ);
}
INTERPOSED(int, execvp, (const char* name, Arguments arguments)) {
    return hostsim_at_execvpe(name, arguments, environ);
}

INTERPOSED(int, posix_spawn,
           (pid_t * pid, const char* path, const posix_spawn_file_actions_t* actions,
            const posix_spawnattr_t* attributes, Arguments arguments, Arguments variables)) {
    return with_environment(variables, [&](Arguments list) {
        return NEXT(posix_spawn)(pid, Path(path), actions, attributes, arguments, list);
    });
}
INTERPOSED(int, posix_spawnp,
           (pid_t * pid, const char* name, const posix_spawn_file_actions_t* actions,
            const posix_spawnattr_t* attributes, Arguments arguments, Arguments variables)) {
    return with_environment(variables, [&](Arguments list) {
        return NEXT(posix_spawnp)(pid, Path(name), actions, attributes, arguments, list);
    });
}

// ---- Variadic forms: a null pointer ends the arguments; in execle the environment follows

// Calls `call` with the arguments as an array. Afterwards `list` is at what follows them.
template <typename Call>
static int with_listed(const char* first, va_list list, const Call& call) noexcept {
    va_list counted;
    va_copy(counted, list);
    size_t size = 1;
    // The analyzer does not follow the callers' lists. NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
    for (const char* argument = first; argument != nullptr; argument = va_arg(counted, const char*)) ++size;
    va_end(counted);
    auto** array = static_cast<char**>(alloca(size * sizeof(char*)));
    array[0] = const_cast<char*>(first);
    for (size_t i = 1; i < size; ++i) array[i] = va_arg(list, char*);
    return call(array);
}

extern "C" {
HOSTSIM_API int hostsim_at_execl(const char* path, const char* first, ...) __asm__("execl");
HOSTSIM_API int hostsim_at_execlp(const char* name, const char* first, ...) __asm__("execlp");
HOSTSIM_API int hostsim_at_execle(const char* path, const char* first, ...) __asm__("execle");
}

int hostsim_at_execl(const char* path, const char* first, ...) {
    va_list list;
    va_start(list, first);
    const int result =
        with_listed(first, list, [path](Arguments arguments) { return hostsim_at_execv(path, arguments); });
    va_end(list);
    return result;
}

int hostsim_at_execlp(const char* name, const char* first, ...) {
    va_list list;
    va_start(list, first);
    const int result =
        with_listed(first, list, [name](Arguments arguments) { return hostsim_at_execvp(name, arguments); });
    va_end(list);
    return result;
}

int hostsim_at_execle(const char* path, const char* first, ...) {
    va_list list;
    va_start(list, first);
    const int result = with_listed(first, list, [path, &list](Arguments arguments) {
        // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized)
        return hostsim_at_execve(path, arguments, va_arg(list, Arguments));
    });
    va_end(list);
    return result;
}

}  // namespace hostsim
