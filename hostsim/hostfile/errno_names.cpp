// errno_names.cpp - libc knows the name of each number; the number of a name is found by asking for them all.
#include "errno_names.h"

#include <cstring>

namespace hostsim {

int errno_by_name(std::string_view name) {
    constexpr int kLast = 133;
    for (int error = 1; error <= kLast; ++error) {
        const char* const known = strerrorname_np(error);
        if (known && name == known) return error;
    }
    if (name == "EWOULDBLOCK") return errno_by_name("EAGAIN");
    return name == "EDEADLOCK" ? errno_by_name("EDEADLK") : 0;
}

}  // namespace hostsim
