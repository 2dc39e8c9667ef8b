// host_schema.h - the JSON schema of host files, made from the tables of fields.
#pragma once

#include <string>

#include "hostsim_api.h"

namespace hostsim {

HOSTSIM_API std::string host_schema();

}  // namespace hostsim
