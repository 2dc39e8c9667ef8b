// snapshot.h - the states of all objects of the host at a moment, as names and values, and the differences
// between two snapshots.
#pragma once

#include <compare>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "port_filter.h"

namespace trelmctl {

// An attribute of the host: "port 1" has a "state". The scope is the port that reported it.
struct StateName {
    std::string scope;
    std::string kind;  // port, virtual port, FCF, target, LUN, driver
    std::string name;
    std::string attribute;

    auto operator<=>(const StateName&) const = default;
};

using Snapshot = std::map<StateName, std::string>;

// If a port does not answer, the entries for its targets and LUNs in `before` are kept.
Snapshot take_snapshot(const LoadedHost& host, const PortFilter& filter, const Snapshot& before);

struct StateChange {
    StateName name;
    std::optional<std::string> before;  // none: the object has appeared
    std::optional<std::string> after;   // none: the object is gone
};
std::vector<StateChange> changes_between(const Snapshot& before, const Snapshot& after);

}  // namespace trelmctl
