// scsi_inquiry.h - standard INQUIRY data and vital product data pages.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "disk_config.h"

namespace hostsim {

// Peripheral qualifier and device type of an address that has no logical unit.
inline constexpr uint8_t kNoDevice = 0x7F;

using InquiryData = std::array<uint8_t, 96>;

InquiryData standard_inquiry(const DiskConfig& disk);

// A vital product data page with its header; empty for a page that the device does not have.
std::optional<std::vector<uint8_t>> vital_product_data(const DiskConfig& disk, uint8_t page);

}  // namespace hostsim
