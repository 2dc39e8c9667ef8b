// ownership.h - who owns what on a simulated host. All that the user has who runs the host belongs to the host's
// user, so that a program which checks an owner against its own identity finds them equal.
#pragma once

#include <sys/types.h>

namespace hostsim {

// Turns the owner that the kernel reports into the one that the host shows, in place. Leaves errno alone.
void show_owner(uid_t& user, gid_t& group) noexcept;

}  // namespace hostsim
