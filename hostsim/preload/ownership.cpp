#include "ownership.h"

#include <unistd.h>

#include "arguments.h"
#include "keep_errno.h"
#include "own_calls.h"

namespace hostsim {

void show_owner(uid_t& user, gid_t& group) noexcept {
    if (serving_state() == nullptr) return;
    const OwnCalls own;
    const KeepErrno keep;
    const bool is_users = user == geteuid();
    const bool is_groups = group == getegid();
    const Host* host = is_users || is_groups ? Host::current() : nullptr;
    if (host == nullptr) return;
    const uid_t shown = host->shown_owner();
    if (is_users) user = shown;
    if (is_groups) group = shown;
}

}  // namespace hostsim
