#include "host_error.h"

namespace hostsim {

HostError::~HostError() = default;

}  // namespace hostsim
