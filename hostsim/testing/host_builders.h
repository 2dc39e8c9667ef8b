// host_builders.h - builds hosts for tests: adapters of one kind with distinct ports. A test adds what it
// needs. All other fields have values that a real host could have.
#pragma once

#include <cstddef>
#include <cstdint>

#include "hostsim_api.h"
#include "model.h"

namespace hostsim::hosts {

// PCI device ids by which the library tells the families apart.
inline constexpr uint16_t kVendorId = 0x1077;
inline constexpr uint16_t kKronDeviceId = 0x8080;
inline constexpr uint16_t kPyxDeviceId = 0x16A1;
inline constexpr uint16_t kLegacyDeviceId = 0x168E;

// The native drivers are present, the legacy one if asked for, and have no ports.
HOSTSIM_API Model empty(bool legacy = false);

// Dual-port adapters with `count` ports in all, each with `virtual_ports` virtual ports. Drivers of other
// kinds are absent.
HOSTSIM_API Model ports(DriverKind kind, size_t count, size_t virtual_ports = 0);
inline Model kron_ports(size_t count, size_t virtual_ports = 0) {
    return ports(DriverKind::kron, count, virtual_ports);
}
inline Model pyx_ports(size_t count, size_t virtual_ports = 0) {
    return ports(DriverKind::pyx, count, virtual_ports);
}
inline Model legacy_ports(size_t count, size_t virtual_ports = 0) {
    return ports(DriverKind::legacy, count, virtual_ports);
}

// Adds an adapter of one kind at the next PCI location and its ports to a host.
HOSTSIM_API Adapter& add_adapter(Model& model, DriverKind kind, size_t count, size_t virtual_ports = 0);

// Add FCFs, targets and LUNs to a port. A reference is valid until the next addition to the same list.
HOSTSIM_API Port& add_virtual_port(PhysicalPort& port);
HOSTSIM_API Fcf& add_fcf(Port& port);
HOSTSIM_API Target& add_target(Port& port, uint32_t index, size_t luns = 0);
HOSTSIM_API Lun& add_lun(Target& target, uint32_t number, uint64_t block_count = 2048,
                         uint32_t block_size = 512);

// The n-th physical port of the host, over all adapters.
HOSTSIM_API PhysicalPort& port(Model& model, size_t n);

}  // namespace hostsim::hosts
