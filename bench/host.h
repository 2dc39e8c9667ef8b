// host.h - the host that the library is measured on: the executable answers for system name, user, the paths
// of an ESXi host, semaphore keys, the process listing and sync() itself, each with the cheapest real call
// that does the job, so that a measured call costs what it would cost with nothing in between.
#pragma once

#include <cstdint>
#include <string>

#include "drivers.h"

namespace bench {

// Where the host's files really lie: in memory where the machine has a place for that, as on an ESXi host.
const std::string& directory();

// The system calls that opening and closing the shared database needs when nobody else has it, bare.
void bare_database_calls();
// Reading the legacy driver's link-state files, bare.
void bare_link_state_calls();

// The library on a host of these ports, loaded and with its first port opened, until the object goes.
class LoadedLibrary {
  public:
    explicit LoadedLibrary(const Ports& ports);
    ~LoadedLibrary();
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    uint32_t handle() const { return handle_; }

  private:
    uint32_t handle_ = 0;
};

// What a benchmark's call returned, where anything but success makes its numbers worthless.
void expect_ok(uint32_t status, const char* what);

}  // namespace bench
