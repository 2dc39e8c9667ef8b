// ownership.h - owners of files and semaphore sets on a simulated host. What the user who runs the host owns
// is shown as the host's user's, so that owner and geteuid agree.
#pragma once

#include <sys/types.h>

namespace hostsim {

// Replaces the owner that the kernel returned with the one that the host shows. Preserves errno.
void show_owner(uid_t& user, gid_t& group) noexcept;

}  // namespace hostsim
