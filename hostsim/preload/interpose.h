// interpose.h - defines functions that come before libc's. INTERPOSE(result, name, parameters, arguments)
// passes the call on to the next definition in the process with the arguments as written: one wrapped in Path
// is redirected into the simulated host's root. A function that does more is defined with INTERPOSED and
// calls the next one through NEXT.
//
// Only the linker sees libc's names. In C++ the functions have names of their own, because libc's headers
// declare theirs with attributes (non-null above all), macros and redirections that do not hold here.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <utility>

#include "keep_errno.h"
#include "own_calls.h"

namespace hostsim {

// The definition that would be used without this one, looked up at the first call.
template <typename Function>
class Next;

template <typename Result, typename... Parameters>
class Next<Result(Parameters...)> {
  public:
    explicit constexpr Next(const char* name) : name_(name) {}

    Result operator()(Parameters... arguments) {
        Result (*function)(Parameters...) = function_.load(std::memory_order_relaxed);
        if (function == nullptr && (function = find()) == nullptr) return missing();
        return function(arguments...);
    }

  private:
    auto find() -> Result (*)(Parameters...) {
        const KeepErrno keep;
        auto* found = reinterpret_cast<Result (*)(Parameters...)>(dlsym(RTLD_NEXT, name_));
        function_.store(found, std::memory_order_relaxed);
        return found;
    }

    // libc of this machine lacks the function.
    static Result missing() {
        errno = ENOSYS;
        if constexpr (std::is_pointer_v<Result>)
            return nullptr;
        else if constexpr (!std::is_void_v<Result>)
            return static_cast<Result>(-1);
    }

    const char* name_;
    std::atomic<Result (*)(Parameters...)> function_ = nullptr;
};

}  // namespace hostsim

#define INTERPOSED(result, name, parameters)                                                              \
    extern "C" __attribute__((visibility("default"))) result hostsim_at_##name parameters __asm__(#name); \
    [[maybe_unused]] static constinit ::hostsim::Next<result parameters> next_##name(#name);              \
    result hostsim_at_##name parameters

#define NEXT(name) next_##name

// `arguments` are in parentheses of their own.
#define INTERPOSE(result, name, parameters, arguments) /* NOLINTNEXTLINE(bugprone-macro-parentheses) */ \
    INTERPOSED(result, name, parameters) { return NEXT(name) arguments; }
