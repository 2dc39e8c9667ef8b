// failed_call.h - the end of a simulated system call that fails.
#pragma once

#include <cerrno>

namespace hostsim {

inline int fail_with(int error) {
    errno = error;
    return -1;
}

}  // namespace hostsim
