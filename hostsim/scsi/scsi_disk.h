// scsi_disk.h - a logical unit that answers SCSI commands as a disk. scsi_target.h holds several of them
// under LUN addresses; scsi_exchange.h makes requests from driver records.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "block_store.h"
#include "disk_config.h"
#include "hostsim_api.h"
#include "scsi.h"

namespace hostsim {

class HOSTSIM_API Disk {
  public:
    Disk(DiskConfig config, std::shared_ptr<BlockStore> store)
        : config_(std::move(config)), store_(std::move(store)) {}

    const DiskConfig& config() const { return config_; }
    ScsiReply run(const ScsiRequest& request) const;

  private:
    struct Command;
    static const Command* find_command(uint8_t opcode);
    std::optional<SenseCode> condition() const;

    ScsiReply test_unit_ready(const ScsiRequest& request) const;
    ScsiReply request_sense(const ScsiRequest& request) const;
    ScsiReply inquiry(const ScsiRequest& request) const;
    ScsiReply read_capacity_10(const ScsiRequest& request) const;
    ScsiReply service_action_in(const ScsiRequest& request) const;
    ScsiReply mode_sense(const ScsiRequest& request) const;
    ScsiReply read(const ScsiRequest& request) const;
    ScsiReply write(const ScsiRequest& request) const;
    ScsiReply synchronize_cache(const ScsiRequest& request) const;

    DiskConfig config_;
    std::shared_ptr<BlockStore> store_;
};

}  // namespace hostsim
