// listing.h - the host's process listing, which programs call as lsof: two lines for each process of the host
// that has libtrelm.so mapped, one for its text and one for its data, as that host's own shows them.
#pragma once

#include <filesystem>
#include <ostream>

namespace hostsim {

// Where the host lies whose command this program was started as ("ROOT/.hostsim/bin/lsof"); empty where it is
// none's.
std::filesystem::path listed_root();

void list_processes(const std::filesystem::path& root, std::ostream& out);

}  // namespace hostsim
