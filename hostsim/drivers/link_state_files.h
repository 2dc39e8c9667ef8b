// link_state_files.h - the text files in which the legacy driver shows its ports under /proc/scsi/dorfc/: one
// file for each physical port, named by its host number, with a section for it and for each of its virtual
// ports.
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

// The current files; none if the legacy driver is absent.
std::vector<LinkStateFile> link_state_files(const Model& model);

}  // namespace hostsim
