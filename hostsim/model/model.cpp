// model.cpp - the ports of a model as drivers enumerate them. Missing WWNs and host numbers are derived from
// the place of the port only, so that a host is the same in each of its processes.
#include "model.h"

#include <algorithm>
#include <set>

#include "values.h"

namespace hostsim {
namespace {

// WWNs for ports without one: a locally administered address with the place of the port in its low bytes.
constexpr uint64_t kNodeName = 0x1000'02CA'1E00'0000;
constexpr uint64_t kPortName = 0x2000'02CA'1E00'0000;

uint64_t place_bits(size_t adapter, size_t port, size_t virtual_port) {
    return (adapter & 0xFF) << 16 | (port & 0xFF) << 8 | (virtual_port & 0xFF);
}

PortRef make_ref(const Adapter& adapter, size_t adapter_index, const PhysicalPort& physical,
                 size_t port_index, const Port* virtual_port, size_t virtual_index) {
    const Port& port = virtual_port ? *virtual_port : physical;
    const uint64_t place = place_bits(adapter_index, port_index, virtual_port ? virtual_index + 1 : 0);
    return PortRef{.adapter = &adapter,
                   .physical = &physical,
                   .port = &port,
                   .is_virtual = virtual_port != nullptr,
                   .adapter_index = adapter_index,
                   .port_index = port_index,
                   .virtual_index = virtual_index,
                   .host_no = 0,
                   .wwnn = port.wwnn ? port.wwnn : kNodeName | place,
                   .wwpn = port.wwpn ? port.wwpn : kPortName | place};
}

// Host numbers 0 and 1 belong to the machine's own disk controllers.
constexpr uint32_t kFirstHostNumber = 2;

void assign_host_numbers(std::vector<PortRef>& ports) {
    std::set<uint32_t> taken;
    for (const PortRef& ref : ports) {
        if (ref.port->host_no) taken.insert(*ref.port->host_no);
    }
    uint32_t next = kFirstHostNumber;
    for (PortRef& ref : ports) {
        while (!ref.port->host_no && taken.contains(next)) ++next;
        ref.host_no = ref.port->host_no ? *ref.port->host_no : next++;
    }
}

// The position of `ref` in an explicit order, or the order's size if it is not in it.
size_t rank(const std::vector<std::string>& order, const PortRef& ref) {
    const auto named = [&](const std::string& name) { return is_named(ref, name); };
    return static_cast<size_t>(std::find_if(order.begin(), order.end(), named) - order.begin());
}

}  // namespace

bool is_present(const Model& model, DriverKind kind) {
    const Driver::Presence presence = model.driver(kind).presence;
    if (presence != Driver::Presence::automatic) return presence == Driver::Presence::present;
    return std::any_of(model.adapters.begin(), model.adapters.end(),
                       [&](const Adapter& adapter) { return adapter.driver == kind; });
}

std::vector<PortRef> all_ports(const Model& model) {
    std::vector<PortRef> ports;
    for (size_t a = 0; a < model.adapters.size(); ++a) {
        const Adapter& adapter = model.adapters[a];
        for (size_t p = 0; p < adapter.ports.size(); ++p) {
            const PhysicalPort& physical = adapter.ports[p];
            ports.push_back(make_ref(adapter, a, physical, p, nullptr, 0));
            for (size_t v = 0; v < physical.virtual_ports.size(); ++v) {
                ports.push_back(make_ref(adapter, a, physical, p, &physical.virtual_ports[v], v));
            }
        }
    }
    assign_host_numbers(ports);
    return ports;
}

std::vector<PortRef> driver_ports(const Model& model, DriverKind kind) {
    std::vector<PortRef> ports = all_ports(model);
    std::erase_if(ports, [&](const PortRef& ref) { return ref.adapter->driver != kind; });
    const auto& order = model.driver(kind).order;
    if (!order.empty()) {
        std::stable_sort(ports.begin(), ports.end(), [&](const PortRef& left, const PortRef& right) {
            return rank(order, left) < rank(order, right);
        });
    }
    return ports;
}

bool is_named(const PortRef& ref, std::string_view text) {
    return !text.empty() && (text == ref.port->name || parse_wwn(text) == ref.wwpn);
}

}  // namespace hostsim
