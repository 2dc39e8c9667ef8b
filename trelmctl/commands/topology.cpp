// topology.cpp - `trelmctl topology`: a drawing of the fabric, targets and LUNs of the host.
#include "topology.h"

#include <sys/utsname.h>

#include <array>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "drawing.h"
#include "text.h"

namespace trelmctl {
namespace {

std::string host_name() {
    utsname names{};
    return uname(&names) == 0 ? escaped(names.nodename) : "host";
}

Json to_json(const TopologyNode& node) {
    static constexpr std::array kLayerNames{"host", "port", "virtual_port", "fcf", "target", "lun"};
    return {{"layer", kLayerNames[static_cast<std::size_t>(node.layer)]},
            {"health", health_words(node.health)},
            {"state", node.state.empty() ? Json() : Json(node.state)},
            {"lines", node.lines}};
}

}  // namespace

void run_topology(const Options& options, Output& output) {
    const LoadedHost host;
    Progress progress;
    Topology topology(host_name());
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        const auto adapter = ask_branch(host, instance, options.filter, LunDetail::named, progress);
        if (!adapter) continue;
        for (Failure& failure : failures_of(*adapter)) output.fail(std::move(failure));
        topology.add(*adapter);
    }
    if (!output.json()) return output.print(drawing_of(topology, options.drawing));
    Json& nodes = output.document()["nodes"] = Json::array();
    for (const TopologyNode& node : topology.nodes()) nodes.push_back(to_json(node));
    Json& edges = output.document()["edges"] = Json::array();
    for (const TopologyEdge& edge : topology.edges()) edges.push_back({{"from", edge.from}, {"to", edge.to}});
}

}  // namespace trelmctl
