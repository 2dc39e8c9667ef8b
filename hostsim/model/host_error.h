// host_error.h - the exception for models and host files that cannot be used.
#pragma once

#include <stdexcept>

#include "hostsim_api.h"

namespace hostsim {

// what() is the whole message; it may have several lines.
class HOSTSIM_API HostError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~HostError() override;
};

}  // namespace hostsim
