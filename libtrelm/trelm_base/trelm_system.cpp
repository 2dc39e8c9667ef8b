// System calls without side effects on the host program.

#include "trelm_system.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <ctime>

namespace {

constexpr int kFirstOwn = STDERR_FILENO + 1;

int copy_above_standard(int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, kFirstOwn); }
constexpr int kWriteSignals[] = {SIGPIPE, SIGXFSZ};

}  // namespace

int trelm::detail::open_file(const char* path, int flags, mode_t mode) {
    Descriptor fd(open(path, flags | O_CLOEXEC, mode));
    if (!fd || fd.get() >= kFirstOwn) return fd.let_go();
    return copy_above_standard(fd.get());
}

DIR* trelm::detail::open_directory(const char* path) {
    Directory directory(opendir(path));
    if (!directory || dirfd(directory.get()) >= kFirstOwn) return directory.let_go();
    Descriptor fd(copy_above_standard(dirfd(directory.get())));
    directory.reset(fd ? fdopendir(fd.get()) : nullptr);
    if (directory) fd.let_go();
    return directory.let_go();
}

FILE* trelm::detail::open_pipe(const char* command) {
    // popen() takes the lowest free descriptors, so the standard ones are occupied meanwhile.
    Descriptor placeholders[kFirstOwn];
    for (Descriptor& placeholder : placeholders) {
        placeholder.reset(open("/dev/null", O_RDWR));  // the command inherits them
        if (placeholder.get() < kFirstOwn) continue;
        placeholder.reset();
        break;
    }
    return popen(command, "re");
}

bool trelm::detail::is_trusted(uid_t owner) { return owner == 0 || owner == geteuid(); }

trelm::detail::QuietWrites::QuietWrites() {
    sigset_t pending;
    sigemptyset(&raised_);
    sigpending(&pending);
    // A pending signal is blocked already, and raising it again changes nothing.
    for (const int signal : kWriteSignals) {
        if (!sigismember(&pending, signal)) sigaddset(&raised_, signal);
    }
    pthread_sigmask(SIG_BLOCK, &raised_, &mask_);
}

trelm::detail::QuietWrites::~QuietWrites() {
    const ErrnoKeeper keep;
    const timespec at_once = {};
    while (sigtimedwait(&raised_, nullptr, &at_once) > 0 || errno == EINTR) {
    }
    pthread_sigmask(SIG_SETMASK, &mask_, nullptr);
}
