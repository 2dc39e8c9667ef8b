// bare_host.h - a host that knows nothing: all that the library asks of it is answered by the input of a fuzz
// target. It has no files, processes or semaphores of its own, so that a load costs microseconds.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "target.h"

namespace trelm::fuzz {

class BareHost {
  public:
    // From here on until the object goes the library is on this host. Its drivers answer from `answers`; once
    // that is empty they refuse every request, which bounds what an input can cost.
    explicit BareHost(Input& driver_answers);
    ~BareHost();
    BareHost(const BareHost&) = delete;
    BareHost& operator=(const BareHost&) = delete;

    // Makes the shared file, of that size, beginning with these bytes.
    void make_shared_file(size_t size, std::span<const uint8_t> begin);
    bool has_shared_file() const { return shared_file >= 0; }

    Input& answers;
    bool legacy_node = true;
    std::string listing = "4\n";  // what counting the process listing prints
    std::vector<std::pair<std::string, std::string>> link_files;
    int shared_file = -1;
    size_t names_read = 0;
};

}  // namespace trelm::fuzz
