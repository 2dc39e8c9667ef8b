// snapshot.h - the states of everything on the host at one moment, as pairs of name and value, and what differs
// between two of them.
#pragma once

#include <compare>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host_look.h"

namespace trelmctl {

// What is asked of the host: "port 1" its "state". The scope is the key of the port that the answer came from.
struct StateName {
    std::string scope;
    std::string kind;  // library, port, virtual port, FCF, target, LUN, driver
    std::string name;  // empty: the port itself
    std::string attribute;

    auto operator<=>(const StateName&) const = default;
};

struct Snapshot {
    std::map<StateName, std::string> states;
    std::map<std::string, std::string> labels;  // of ports, by scope
};

// What cannot be asked now stands as it was before.
Snapshot take_snapshot(const HostLook& host, const Snapshot& before);

struct StateChange {
    StateName name;
    std::string label;                  // of the port
    std::optional<std::string> before;  // none: it has appeared
    std::optional<std::string> after;   // none: it is gone
};
std::vector<StateChange> changes_between(const Snapshot& before, const Snapshot& after);

}  // namespace trelmctl
