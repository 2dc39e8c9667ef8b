#include "root_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "state.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

int open_lock(const fs::path& path) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), path.string());
    return fd;
}

int lock(int fd, int operation) {
    int result;
    do {
        result = flock(fd, operation);
    } while (result != 0 && errno == EINTR);
    return result;
}

void join(const fs::path& root, const std::string& host_file) {
    const std::string runs = State::attach(root)->host_file();
    if (runs == host_file) return;
    throw std::runtime_error(root.string() + ": the host of " + runs + " runs here, not that of " +
                             host_file + "; end it first or give another --root");
}

}  // namespace

RootLock::RootLock(const fs::path& root, const std::string& host_file) : root_(root) {
    fs::create_directories(root / ".hostsim");
    turn_ = open_lock(root / ".hostsim" / "turn");
    users_ = open_lock(root / ".hostsim" / "users");
    lock(turn_, LOCK_EX);
    if (lock(users_, LOCK_EX | LOCK_NB) == 0)
        State::create(root, host_file);
    else
        join(root, host_file);
    lock(users_, LOCK_SH);
    lock(turn_, LOCK_UN);
}

RootLock::~RootLock() {
    close(users_);
    close(turn_);
}

void RootLock::leave() noexcept {
    lock(turn_, LOCK_EX);
    if (lock(users_, LOCK_EX | LOCK_NB) == 0) State::clean(root_);
    lock(users_, LOCK_UN);
    lock(turn_, LOCK_UN);
}

}  // namespace hostsim
