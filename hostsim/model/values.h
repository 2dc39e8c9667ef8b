// values.h - addresses and sizes as text: WWNs and MAC addresses as hexadecimal bytes with colons, sizes as a
// number with a unit.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "hostsim_api.h"

namespace hostsim {

using MacAddress = std::array<uint8_t, 6>;

HOSTSIM_API std::optional<uint64_t> parse_wwn(std::string_view text);     // "20:00:00:1b:21:ab:cd:ef"
HOSTSIM_API std::optional<MacAddress> parse_mac(std::string_view text);   // "00:1b:21:ab:cd:ef"
HOSTSIM_API std::optional<uint64_t> parse_size(std::string_view text);    // "2 TiB", "500 GB", "4096"
HOSTSIM_API std::optional<uint64_t> parse_number(std::string_view text);  // "0x8080", "32896"
// "0000:3b:00", domain, bus and device of an adapter, as 0xDDDDBBDD.
HOSTSIM_API std::optional<uint32_t> parse_pci_location(std::string_view text);
HOSTSIM_API std::string format_wwn(uint64_t wwn);
std::string format_mac(const MacAddress& mac);

}  // namespace hostsim
