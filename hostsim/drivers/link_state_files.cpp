// link_state_files.cpp - sections of ready ports come first. A reader searches for the WWPN of a port and
// then for the word 'ready'. It reads on into the sections that follow and must not find that word for
// another port.
#include "link_state_files.h"

#include <fmt/format.h>

#include <algorithm>

#include "trelm_driver_records.h"

namespace hostsim {
namespace {

const char* state_word(uint32_t link_state) {
    switch (link_state) {
        case FC_PORTSTATE_ONLINE:
            return "LPORT_ST_READY";
        case FC_PORTSTATE_LINKDOWN:
            return "LPORT_ST_LINK_DOWN";
        default:
            return "LPORT_ST_DISABLED";
    }
}

bool is_ready(const PortRef& ref) { return ref.port->link_state == FC_PORTSTATE_ONLINE; }

void add_section(std::string& text, const PortRef& ref) {
    text += fmt::format("\nSCSI Device Information: host{}\n", ref.host_no);
    text += fmt::format("  Port type         : {}\n", ref.is_virtual ? "NPIV" : "physical");
    text += fmt::format("  WWNN              : {:016x}\n", ref.wwnn);
    text += fmt::format("  WWPN              : {:02x}\n", ref.wwpn);
    text += fmt::format("  Port ID           : {:06x}\n", ref.port->port_id);
    text += fmt::format("  VLAN              : {}\n", ref.port->vlan);
    text += fmt::format("  Lport state       : {}\n", state_word(ref.port->link_state));
    for (const Target& target : ref.port->targets) {
        text += fmt::format("  Target {:3}        : port ID {:06x}, {}\n", target.index, target.port_id,
                            target.offline ? "offline" : "logged in");
    }
}

LinkStateFile make_file(const Model& model, const std::vector<PortRef>& sections) {
    const Adapter& adapter = *sections.front().adapter;
    const PhysicalPort* const physical = sections.front().physical;
    LinkStateFile file;
    for (const PortRef& ref : sections) {
        if (ref.port == physical) file.name = std::to_string(ref.host_no);
    }
    file.text += fmt::format("{} FCoE driver {}\n{} serial {}, firmware {}\nPCI {:04x}:{:02x}:{:02x}.{}\n",
                             adapter.manufacturer, model.driver(DriverKind::legacy).version, adapter.model,
                             adapter.serial_number, adapter.firmware_version, adapter.pci_domain,
                             adapter.pci_bus, adapter.pci_device, physical->pci_function);
    for (const PortRef& ref : sections) add_section(file.text, ref);
    return file;
}

}  // namespace

std::vector<LinkStateFile> link_state_files(const Model& model) {
    std::vector<LinkStateFile> files;
    if (!is_present(model, DriverKind::legacy)) return files;
    std::vector<PortRef> ports = all_ports(model);
    std::erase_if(ports, [](const PortRef& ref) { return ref.adapter->driver != DriverKind::legacy; });
    for (auto first = ports.begin(); first != ports.end();) {
        const auto last = std::find_if(first, ports.end(),
                                       [&](const PortRef& ref) { return ref.physical != first->physical; });
        std::stable_partition(first, last, is_ready);
        files.push_back(make_file(model, {first, last}));
        first = last;
    }
    return files;
}

}  // namespace hostsim
