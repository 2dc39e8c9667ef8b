// scsi_target.h - a SCSI target: its logical units, their addresses, and the replies for addresses that have
// no logical unit.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "hostsim_api.h"
#include "scsi.h"
#include "scsi_disk.h"

namespace hostsim {

// How REPORT LUNS writes the address of a logical unit. Numbers above 255 always get flat addressing.
enum class LunAddressing : uint8_t { peripheral, flat };

inline constexpr uint16_t kMaxLunNumber = 0x3FFF;

// A host addresses a logical unit by two 32-bit numbers, which hold the 16-bit levels of the eight-byte
// address, first level lowest. Returns the number of the logical unit; none for an address that no such
// target has.
HOSTSIM_API std::optional<uint16_t> lun_number(uint32_t lun, uint32_t lun_ext);

// The address of a logical unit: the low one of the two numbers (the high one is 0), and its eight bytes in
// REPORT LUNS data.
HOSTSIM_API uint32_t lun_address(uint16_t number, LunAddressing addressing);
HOSTSIM_API std::array<uint8_t, 8> lun_entry(uint16_t number, LunAddressing addressing);

struct ScsiLun {
    uint16_t number = 0;
    LunAddressing addressing = LunAddressing::peripheral;
    Disk disk;
};

class HOSTSIM_API ScsiTarget {
  public:
    // In any order. If several have one number, the first is used.
    explicit ScsiTarget(std::vector<ScsiLun> luns);

    // Runs a command on the logical unit that the two numbers address, peripheral or flat.
    ScsiReply run(uint32_t lun, uint32_t lun_ext, const ScsiRequest& request) const;

  private:
    const ScsiLun* find(uint16_t number) const;
    ScsiReply report_luns(const ScsiRequest& request) const;

    std::vector<ScsiLun> luns_;  // by number
};

}  // namespace hostsim
