// scsi_mode_pages.h - the answer to MODE SENSE (6) and (10).
#pragma once

#include "scsi_disk.h"

namespace hostsim {

ScsiReply mode_sense_reply(const DiskConfig& disk, const ScsiRequest& request);

}  // namespace hostsim
