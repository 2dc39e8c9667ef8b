// hostile_host.h - a simulated host whose drivers know nothing: all that the library asks of them is answered
// by the input of a fuzz target.
#pragma once

#include <string>

#include "host.h"
#include "target.h"

namespace trelm::fuzz {

class HostileHost {
  public:
    // From here on until the object goes the library is on this host. Its drivers answer from `answers`; once
    // that is empty they refuse every request, which bounds what an input can cost.
    explicit HostileHost(Input& answers, bool legacy_node = true);
    ~HostileHost();
    HostileHost(HostileHost&&) = delete;

    std::string listing = "4\n";  // what counting the process listing prints
};

}  // namespace trelm::fuzz
