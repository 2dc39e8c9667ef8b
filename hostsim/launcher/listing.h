// listing.h - the host's process listing, which programs call as lsof. Like the real host's, it has two lines
// for each process that maps libtrelm.so: one for its text, one for its data.
#pragma once

#include <filesystem>
#include <ostream>

namespace hostsim {

// The root of the host whose lsof this program was started as; empty if there is none.
std::filesystem::path listed_root();

void list_processes(const std::filesystem::path& root, std::ostream& out);

}  // namespace hostsim
