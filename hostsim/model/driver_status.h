// driver_status.h - the statuses that the drivers of a simulated host answer of their own accord.
#pragma once

#include <cstdint>

namespace hostsim {

inline constexpr uint32_t kStatusGood = 0;
inline constexpr uint32_t kStatusInvalidRequest = 4;
inline constexpr uint32_t kStatusNoSuchPort = 7;
inline constexpr uint32_t kStatusDeviceOffline = 13;
// The SCSI status of a reservation conflict. Sense data does not show one, and the drivers' records have no
// field for the SCSI status.
inline constexpr uint32_t kStatusReserved = 0x18;

}  // namespace hostsim
