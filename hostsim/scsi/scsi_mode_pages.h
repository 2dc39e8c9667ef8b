// scsi_mode_pages.h - the answer to MODE SENSE (6) and (10).
#pragma once

#include "disk_config.h"
#include "scsi.h"

namespace hostsim {

ScsiReply mode_sense_reply(const DiskConfig& disk, const ScsiRequest& request);

}  // namespace hostsim
