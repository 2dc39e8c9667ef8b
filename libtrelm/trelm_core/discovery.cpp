// The PCI devices that the library serves.

#include "discovery.h"

namespace {

constexpr uint16_t kSupportedDevices[] = {0x165C, 0x1662, 0x1663, 0x168A, 0x168E, 0x16A1,
                                          0x16A2, 0x16A4, 0x16A5, 0x16AE, 0x8080, 0x8180};

}  // namespace

bool trelm::detail::is_supported_device(uint16_t device_id) {
    for (uint16_t supported : kSupportedDevices) {
        if (device_id == supported) return true;
    }
    return false;
}
