// host.h - the host that the library is measured on. The executable itself answers for the system name, the
// user, the paths of an ESXi host, semaphore keys, the process listing and sync(). Each answer makes the
// cheapest real call that does the work, so that the measured call costs as much as without the replacement.
#pragma once

#include <cstdint>
#include <string>

#include "drivers.h"

namespace bench {

// The directory with the files of the host: in memory if the machine has such a place, as on an ESXi host.
const std::string& directory();

// Makes only the system calls that opening and closing the shared database needs if no other process has it.
void bare_database_calls();
// Reads the link-state files of the legacy driver, without the library.
void bare_link_state_calls();

// The library, loaded on a host with these ports, with its first port open. The destructor frees it.
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

// Ends the program unless the status is success, because the numbers would be worthless.
void expect_ok(uint32_t status, const char* what);

}  // namespace bench
