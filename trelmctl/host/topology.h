// topology.h - the host as a graph: the host, its ports, the FCFs that they log in to, targets and LUNs. An
// object that is reached over several paths is one node: an FCF by its MAC address, a target by its WWPN, a
// LUN by its name.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "host_tree.h"

namespace trelmctl {

enum class Layer { host, port, virtual_port, fcf, target, lun };
enum class Health { good, degraded, failed };

struct TopologyNode {
    Layer layer;
    Health health;
    std::string state;               // in words; empty if there is no state
    std::vector<std::string> lines;  // further text
};

struct TopologyEdge {
    std::size_t from;
    std::size_t to;

    bool operator==(const TopologyEdge&) const = default;
};

class Topology {
  public:
    explicit Topology(const std::string& host_name);

    void add(const AdapterBranch& adapter);

    const std::vector<TopologyNode>& nodes() const { return nodes_; }
    const std::vector<TopologyEdge>& edges() const { return edges_; }

  private:
    std::size_t add_node(const std::string& key, TopologyNode node);
    void connect(std::size_t from, std::size_t to);
    std::size_t add_port(std::size_t above, const AdapterBranch& adapter, const PortBranch& port,
                         Layer layer);
    std::size_t add_fcf(std::size_t port, const PortBranch& branch);
    void add_target(std::size_t above, const TargetBranch& target);

    std::vector<TopologyNode> nodes_;
    std::vector<TopologyEdge> edges_;
    std::map<std::string, std::size_t> by_key_;
};

}  // namespace trelmctl
