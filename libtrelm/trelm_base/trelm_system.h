// trelm_system.h - calls to the system that leave the program alone that loads the library, and whom to trust in
// directories and under keys that are open to everyone.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdio>

#include "trelm_owners.h"

namespace trelm::detail {

// As open(), with O_CLOEXEC. The descriptor is never 0, 1 or 2: where the program has closed these, its other
// parts still write to them as standard output and standard error.
int open_file(const char* path, int flags, mode_t mode = 0);
// As opendir(), with such a descriptor.
DIR* open_directory(const char* path);
// As popen() for reading, with such a descriptor.
FILE* open_pipe(const char* command);

// Whether what this user made may be used: root's, and the caller's own.
bool is_trusted(uid_t owner);

// While it lives, a write of this thread raises no signal: neither SIGPIPE for a broken pipe nor SIGXFSZ at the
// limit of a file's size. The program's dispositions, mask and pending signals are as before afterwards.
class QuietWrites {
  public:
    QuietWrites();
    ~QuietWrites();
    QuietWrites(const QuietWrites&) = delete;
    QuietWrites& operator=(const QuietWrites&) = delete;

  private:
    sigset_t raised_;  // what a write may raise and was not pending before
    sigset_t mask_;
};

}  // namespace trelm::detail
