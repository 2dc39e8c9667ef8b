// snapshot.h - the states of all objects of the host at one time, as names and values, and the differences
// between two snapshots.
#pragma once

#include <compare>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host_look.h"

namespace trelmctl {

// An attribute of the host: "port 1" has a "state". The scope is the key of the port that reported it.
struct StateName {
    std::string scope;
    std::string kind;  // library, port, virtual port, FCF, target, LUN, driver
    std::string name;  // empty: the port itself
    std::string attribute;

    // clang-tidy takes the 0 of the generated comparison for a null pointer.
    auto operator<=>(const StateName&) const = default;  // NOLINT(modernize-use-nullptr)
};

struct Snapshot {
    std::map<StateName, std::string> states;
    std::map<std::string, std::string> labels;  // of ports, by scope
};

// What cannot be read now keeps its state from `before`.
Snapshot take_snapshot(const HostLook& host, const Snapshot& before);

struct StateChange {
    StateName name;
    std::string label;                  // of the port
    std::optional<std::string> before;  // none: the object has appeared
    std::optional<std::string> after;   // none: the object is gone
};
std::vector<StateChange> changes_between(const Snapshot& before, const Snapshot& after);

}  // namespace trelmctl
