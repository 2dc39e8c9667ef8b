// scsi_inquiry.h - how a device describes itself: standard INQUIRY data and the vital product data pages.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "disk_config.h"

namespace hostsim {

// Peripheral qualifier and device type of an address where there is no logical unit and can be none.
inline constexpr uint8_t kNoDevice = 0x7F;

using InquiryData = std::array<uint8_t, 96>;

InquiryData standard_inquiry(const DiskConfig& disk);

// A whole vital product data page, header included; nothing for a page that the device does not have.
std::optional<std::vector<uint8_t>> vital_product_data(const DiskConfig& disk, uint8_t page);

}  // namespace hostsim
