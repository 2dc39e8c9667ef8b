// hostile_host.h - a simulated host whose drivers answer every request from the input of a fuzz target.
#pragma once

#include <string>

#include "host.h"
#include "target.h"

namespace trelm::fuzz {

class HostileHost {
  public:
    // Puts the library on this host while the object lives. The drivers answer from `answers`. When that is
    // empty they refuse every request, which limits the cost of an input.
    explicit HostileHost(Input& answers, bool legacy_node = true);
    ~HostileHost();
    HostileHost(HostileHost&&) = delete;

    std::string listing = "4\n";  // output of the pipeline that counts the process listing
};

}  // namespace trelm::fuzz
