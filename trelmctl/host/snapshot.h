// snapshot.h - the states of everything on the host at one moment, as pairs of name and value, and what differs
// between two of them.
#pragma once

#include <compare>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "port_filter.h"

namespace trelmctl {

// What is asked of the host: "port 1" its "state". The scope is the port that the answer came from.
struct StateName {
    std::string scope;
    std::string kind;  // port, virtual port, FCF, target, LUN, driver
    std::string name;
    std::string attribute;

    auto operator<=>(const StateName&) const = default;
};

using Snapshot = std::map<StateName, std::string>;

// Where a port cannot be asked, what `before` holds of its targets and LUNs stands.
Snapshot take_snapshot(const LoadedHost& host, const PortFilter& filter, const Snapshot& before);

struct StateChange {
    StateName name;
    std::optional<std::string> before;  // none: it has appeared
    std::optional<std::string> after;   // none: it is gone
};
std::vector<StateChange> changes_between(const Snapshot& before, const Snapshot& after);

}  // namespace trelmctl
