// link_state_files.h - the text files in which the legacy driver shows its ports under /proc/scsi/dorfc/: one
// file an adapter, named by the host number of its first port, with a section for each port.
#pragma once

#include <string>
#include <vector>

#include "model.h"

namespace hostsim {

struct LinkStateFile {
    std::string name;  // within the directory
    std::string text;

    bool operator==(const LinkStateFile&) const = default;
};

// The files of the moment; none where the legacy driver is not there.
std::vector<LinkStateFile> link_state_files(const Model& model);

}  // namespace hostsim
