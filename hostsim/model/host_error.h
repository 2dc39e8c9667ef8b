// host_error.h - the one error of models and host files.
#pragma once

#include <stdexcept>

#include "hostsim_api.h"

namespace hostsim {

// A model or host file that cannot be used; what() is the whole message.
class HOSTSIM_API HostError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
    ~HostError() override;
};

}  // namespace hostsim
