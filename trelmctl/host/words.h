// words.h - coded values of the records in words. A value without a word is shown as its number.
#pragma once

#include <cstdint>
#include <string>

#include "trelm_mgmt.h"

namespace trelmctl {

std::string port_state_words(uint32_t state);
std::string port_type_words(uint32_t type);
// Targets have the states of Fibre Channel ports.
std::string target_state_words(uint16_t state);
// Speeds as bits: "10 Gbit/s", "1, 10 Gbit/s".
std::string speed_words(uint64_t bits);
// The fastest of them; 0 if no bit has a known speed.
unsigned fastest_gigabits(uint64_t bits);
// Domain, bus, device and function.
std::string pci_address(const TRELM_FCOE_INFO& info);
// The rate in tenths of GT/s and the code of the width: "8.0 GT/s x8".
std::string pcie_words(uint32_t speed, uint32_t width);
// The number of lanes by the code of the width; 0 if the code is unknown.
unsigned pcie_lanes(uint32_t width);

}  // namespace trelmctl
