// host_builders.cpp - the values of hosts for tests.
#include "host_builders.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace hostsim::hosts {
namespace {

struct Family {
    uint16_t device_id;
    const char* model;
    uint32_t management_firmware;
};

const Family& family(DriverKind kind) {
    static constexpr Family kFamilies[kDriverKinds]{
        {kKronDeviceId, "Ulvard 8042", 0x08251E00},
        {kPyxDeviceId, "Ulvard 3412", 0},
        {kLegacyDeviceId, "Ulvard 2010", 0},
    };
    return kFamilies[static_cast<size_t>(kind)];
}

// The first names of fabrics and storage; ports and indexes are added to them.
constexpr uint64_t kSwitch = 0x2000'02CA'5717'0001;
constexpr uint64_t kFabric = 0x1000'02CA'5717'0001;
constexpr uint64_t kStorageNode = 0x5000'02CA'5D00'0000;
constexpr uint64_t kStoragePort = 0x5000'02CA'5E00'0000;

}  // namespace

Model empty(bool legacy) {
    Model model;
    model.driver(DriverKind::kron).presence = Driver::Presence::present;
    model.driver(DriverKind::pyx).presence = Driver::Presence::present;
    if (legacy) model.driver(DriverKind::legacy).presence = Driver::Presence::present;
    return model;
}

Model ports(DriverKind kind, size_t count, size_t virtual_ports) {
    Model model;
    model.driver(kind).presence = Driver::Presence::present;
    for (size_t left = count; left > 0; left -= std::min<size_t>(left, 2)) {
        add_adapter(model, kind, std::min<size_t>(left, 2), virtual_ports);
    }
    return model;
}

Adapter& add_adapter(Model& model, DriverKind kind, size_t count, size_t virtual_ports) {
    const size_t number = model.adapters.size();
    Adapter& adapter = model.adapters.emplace_back();
    adapter.driver = kind;
    adapter.model = family(kind).model;
    adapter.serial_number = fmt::format("CVX{:07}", 1000 + number);
    adapter.firmware_version = "8.37.30.0";
    adapter.management_firmware = family(kind).management_firmware;
    adapter.vendor_id = kVendorId;
    adapter.device_id = family(kind).device_id;
    adapter.subsystem_vendor_id = kVendorId;
    adapter.subsystem_id = 0x0011;
    adapter.pci_bus = static_cast<uint16_t>(5 + number);
    adapter.revision = 2;
    for (size_t p = 0; p < count; ++p) {
        PhysicalPort& physical = adapter.ports.emplace_back();
        physical.name = fmt::format("port{}.{}", number, p);
        physical.pci_function = static_cast<uint16_t>(p);
        physical.port_id = static_cast<uint32_t>(0x010000 | number << 12 | p << 8);
        physical.vlan = 1002;
        for (size_t v = 0; v < virtual_ports; ++v) add_virtual_port(physical);
    }
    return adapter;
}

Port& add_virtual_port(PhysicalPort& port) {
    const size_t number = port.virtual_ports.size() + 1;
    Port& added = port.virtual_ports.emplace_back();
    added.name = fmt::format("{}/{}", port.name, number);
    added.port_id = port.port_id + static_cast<uint32_t>(number);
    added.vlan = port.vlan;
    added.link_state = port.link_state;
    return added;
}

Fcf& add_fcf(Port& port) {
    const auto number = static_cast<uint8_t>(port.fcfs.size());
    Fcf& fcf = port.fcfs.emplace_back();
    fcf.switch_name = kSwitch + number;
    fcf.fabric_name = kFabric + number;
    fcf.vfid = 100;
    fcf.fcf_mac = {0x02, 0xCA, 0x57, 0x17, 0x00, number};
    fcf.fcoe_mac = {0x02, 0xCA, 0x57, 0x17, 0x01, number};
    fcf.selected = number == 0;
    return fcf;
}

Target& add_target(Port& port, uint32_t index, size_t luns) {
    Target& target = port.targets.emplace_back();
    target.index = index;
    target.wwnn = kStorageNode | uint64_t{port.port_id & 0xFFFF} << 8 | index;
    target.wwpn = kStoragePort | uint64_t{port.port_id & 0xFFFF} << 8 | index;
    target.port_id = 0x020000 | index;
    for (size_t n = 0; n < luns; ++n) add_lun(target, static_cast<uint32_t>(n));
    return target;
}

Lun& add_lun(Target& target, uint32_t number, uint64_t block_count, uint32_t block_size) {
    Lun& lun = target.luns.emplace_back();
    lun.number = number;
    lun.block_count = block_count;
    lun.block_size = block_size;
    return lun;
}

PhysicalPort& port(Model& model, size_t n) {
    for (Adapter& adapter : model.adapters) {
        if (n < adapter.ports.size()) return adapter.ports[n];
        n -= adapter.ports.size();
    }
    throw std::out_of_range("the host has no such port");
}

}  // namespace hostsim::hosts
