// trelm_system.h - system calls without side effects on the host program, and which owners to trust for files
// and keys that are open to everyone.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstdio>

#include "trelm_owners.h"

namespace trelm::detail {

// open() with O_CLOEXEC. The descriptor is never 0, 1 or 2: if the program has closed these, other parts of
// it still write to them as standard output and standard error.
int open_file(const char* path, int flags, mode_t mode = 0);
// opendir() with such a descriptor.
DIR* open_directory(const char* path);
// popen() for reading, with such a descriptor.
FILE* open_pipe(const char* command);

// Whether files and semaphore sets of this user may be used: those of root and of the caller.
bool is_trusted(uid_t owner);

// While the object lives, writes of this thread raise no signal: neither SIGPIPE for a broken pipe nor
// SIGXFSZ at the file size limit. The signal dispositions, mask and pending signals of the program are
// restored afterwards.
class QuietWrites {
  public:
    QuietWrites();
    ~QuietWrites();
    QuietWrites(const QuietWrites&) = delete;
    QuietWrites& operator=(const QuietWrites&) = delete;

  private:
    sigset_t raised_;  // signals that a write may raise and that were not pending before
    sigset_t mask_;
};

}  // namespace trelm::detail
