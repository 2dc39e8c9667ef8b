#include "topology.h"

#include <fmt/format.h>

#include <algorithm>

#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

Health health_of(bool failed, const std::string& state) {
    if (failed) return Health::failed;
    return state == "online" ? Health::good : Health::degraded;
}

// Empty if the port has no FCF.
std::string fcf_mac(const PortState& port) {
    if (!port.info || number(port.info->FcfCount) == 0) return {};
    const bool unset = std::all_of(std::begin(port.info->FcfMAC), std::end(port.info->FcfMAC),
                                   [](uint8_t byte) { return byte == 0; });
    return unset ? std::string() : address(port.info->FcfMAC);
}

TopologyNode lun_node(const ListedLun& lun) {
    std::vector<std::string> lines{"LUN " + lun_text(lun.lun), fmt::format("{} {}", lun.vendor, lun.product),
                                   capacity_text(lun)};
    if (!lun.name.empty()) lines.push_back(lun.name);
    const Health health = lun.failure ? Health::failed : Health::good;
    return {Layer::lun, health, lun.failure ? "failed" : "ready", std::move(lines)};
}

}  // namespace

Topology::Topology(const std::string& host_name) {
    add_node("host", {Layer::host, Health::good, "", {host_name}});
}

std::size_t Topology::add_node(const std::string& key, TopologyNode node) {
    const auto [place, is_new] = by_key_.emplace(key, nodes_.size());
    if (is_new) {
        nodes_.push_back(std::move(node));
    } else {
        // The state may differ between paths. The worst one is shown.
        TopologyNode& known = nodes_[place->second];
        if (node.health > known.health) known.health = node.health, known.state = std::move(node.state);
    }
    return place->second;
}

void Topology::connect(std::size_t from, std::size_t to) {
    const TopologyEdge edge{from, to};
    if (std::find(edges_.begin(), edges_.end(), edge) == edges_.end()) edges_.push_back(edge);
}

std::size_t Topology::add_port(std::size_t above, const AdapterBranch& adapter, const PortBranch& branch,
                               Layer layer) {
    const PortState& port = branch.port;
    const std::string label =
        layer == Layer::port ? port_label(adapter.instance) : port_label(adapter.instance, port.npiv_index);
    std::vector<std::string> lines{"port " + label};
    std::string state = "failed";
    if (port.info) {
        state = port_state_words(port.info->PortState);
        lines.push_back(field_text(port.info->HbaName));
        lines.push_back(address(port.info->WWPN));
        lines.push_back(speed_words(port.info->PortSpeed));
    }
    const Health health = health_of(!port.info || branch.failure, state);
    const std::size_t node = add_node("port " + label, {layer, health, state, std::move(lines)});
    connect(above, node);
    return node;
}

// The parent node of the targets of a port: its FCF, or the port itself.
std::size_t Topology::add_fcf(std::size_t port, const PortBranch& branch) {
    const std::string mac = fcf_mac(branch.port);
    if (mac.empty()) return port;
    const std::size_t node =
        add_node("fcf " + mac, {Layer::fcf,
                                Health::good,
                                "",
                                {"FCF " + mac, "fabric " + address(branch.port.info->FabricName),
                                 fmt::format("VLAN {}", number(branch.port.info->FabricVlan))}});
    connect(port, node);
    return node;
}

void Topology::add_target(std::size_t above, const TargetBranch& target) {
    const std::string wwpn = address(target.info.WWPN);
    const std::string state = target_state_words(target.info.PortState);
    const std::size_t node =
        add_node("target " + wwpn,
                 {Layer::target, health_of(target.failure.has_value(), state), state, {"target", wwpn}});
    connect(above, node);
    for (const ListedLun& lun : target.luns) {
        const std::string key = lun.name.empty() ? fmt::format("lun {} {}", wwpn, lun.lun) : lun.name;
        connect(node, add_node(key, lun_node(lun)));
    }
}

void Topology::add(const AdapterBranch& adapter) {
    constexpr std::size_t kHost = 0;
    if (adapter.ports.empty()) {
        const std::string label = "port " + port_label(adapter.instance);
        connect(kHost, add_node(label, {Layer::port, Health::failed, "failed", {label}}));
        return;
    }
    std::size_t physical = kHost;
    for (std::size_t i = 0; i < adapter.ports.size(); ++i) {
        const PortBranch& branch = adapter.ports[i];
        const std::size_t port =
            add_port(physical, adapter, branch, i == 0 ? Layer::port : Layer::virtual_port);
        if (i == 0) physical = port;
        const std::size_t above = add_fcf(port, branch);
        for (const TargetBranch& target : branch.targets) add_target(above, target);
    }
}

}  // namespace trelmctl
