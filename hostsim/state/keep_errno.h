// keep_errno.h - restores errno at the end of a scope.
#pragma once

#include <cerrno>

namespace hostsim {

class KeepErrno {
  public:
    KeepErrno() : saved_(errno) {}
    ~KeepErrno() { errno = saved_; }
    KeepErrno(const KeepErrno&) = delete;
    KeepErrno& operator=(const KeepErrno&) = delete;

  private:
    int saved_;
};

}  // namespace hostsim
