// starting_host.h - the commented host file that `trelm-hostsim new` writes; the build takes it from
// starting_host.json.
#pragma once

namespace hostsim {

extern const char* const kStartingHost;

}  // namespace hostsim
