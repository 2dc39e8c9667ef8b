#include "snapshot.h"

#include <fmt/format.h>

#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

constexpr const char* kState = "state";
constexpr const char* kNumber = "number";
constexpr const char* kSpeed = "speed";
constexpr const char* kIdentifier = "identifier";
constexpr const char* kLuns = "LUNs";
constexpr const char* kNoAnswer = "no answer";

bool is_part_of(const std::string& scope, const std::string& adapter) {
    return scope == adapter || scope.starts_with(adapter + "/");
}

std::string label_of(const Snapshot& snapshot, const std::string& scope) {
    const auto label = snapshot.labels.find(scope);
    return label == snapshot.labels.end() ? "" : label->second;
}

// Copies the states that `is_kept` selects, unless the new snapshot already has a value for them.
template <typename Choice>
void keep(Snapshot& snapshot, const Snapshot& before, Choice is_kept) {
    for (const auto& [name, value] : before.states) {
        if (!is_kept(name)) continue;
        snapshot.states.emplace(name, value);
        snapshot.labels.emplace(name.scope, label_of(before, name.scope));
    }
}

// The snapshot of one port of an adapter.
class PortScope {
  public:
    PortScope(Snapshot& snapshot, const Snapshot& before, const std::string& scope, const std::string& label)
        : snapshot_(snapshot), before_(before), scope_(scope) {
        snapshot.labels[scope] = label;
    }

    void set(const std::string& kind, const std::string& name, const std::string& attribute,
             std::string value) {
        snapshot_.states[{scope_, kind, name, attribute}] = std::move(value);
    }
    void keep_kind(const std::string& kind) {
        keep(snapshot_, before_,
             [&](const StateName& name) { return name.scope == scope_ && name.kind == kind; });
    }
    void keep_luns_of(const std::string& target) {
        keep(snapshot_, before_, [&](const StateName& name) {
            return name.scope == scope_ && ((name.kind == "LUN" && name.name.starts_with(target + " ")) ||
                                            (name.name == target && name.attribute == kLuns));
        });
    }

  private:
    Snapshot& snapshot_;
    const Snapshot& before_;
    std::string scope_;
};

void add_targets(const TargetsLook& list, PortScope& scope) {
    for (const TargetLook& target : list.targets) {
        const std::string name = address(target.info.WWPN);
        scope.set("target", name, kState, target_state_words(target.info.PortState));
        if (!target.luns) {
            scope.keep_luns_of(name);
            continue;
        }
        scope.set("target", name, kLuns, fmt::to_string(target.luns->size()));
        for (const uint64_t lun : *target.luns)
            scope.set("LUN", name + " " + lun_text(lun), kState, "listed");
    }
    if (!list.failure) return;
    scope.keep_kind("target");
    scope.keep_kind("LUN");
}

void add_port(const PortLook& port, PortScope& scope) {
    const char* kind = port.is_virtual ? "virtual port" : "port";
    if (!port.is_virtual) scope.set(kind, "", kNumber, port.label);
    if (!port.state.info) {
        scope.set(kind, "", kState, "failed");
        for (const char* kept : {kind, "FCF", "target", "LUN"}) scope.keep_kind(kept);
        return;
    }
    const TRELM_VNPORT_INFO& info = *port.state.info;
    scope.set(kind, "", kState, port_state_words(info.PortState));
    scope.set(kind, "", kSpeed, speed_words(info.PortSpeed));
    scope.set(kind, "", kIdentifier, fmt::format("0x{:06x}", number(info.PortFCID)));
    if (number(info.FcfCount) > 0) scope.set("FCF", address(info.FcfMAC), "fabric", address(info.FabricName));
    if (port.targets) add_targets(*port.targets, scope);
}

void add_adapter(const AdapterLook& adapter, Snapshot& snapshot, const Snapshot& before) {
    PortScope scope(snapshot, before, adapter.key, port_label(adapter.instance));
    const std::string driver = adapter.info ? field_text(adapter.info->DriverName) : "";
    if (driver.empty()) {
        scope.keep_kind("driver");
    } else {
        scope.set("driver", driver, "version", field_text(adapter.info->DriverVersion));
    }
    for (const PortLook& port : adapter.ports) {
        PortScope own(snapshot, before, port.key, port.label);
        add_port(port, own);
    }
    if (!adapter.may_have_more_ports()) return;
    if (adapter.says_nothing()) scope.set("port", "", kNumber, port_label(adapter.instance));
    if (adapter.answer == Answer::late) scope.set("port", "", kState, kNoAnswer);
    if (adapter.answer == Answer::failed) scope.set("port", "", kState, "failed");
    keep(snapshot, before, [&, present = snapshot.labels](const StateName& name) {
        return is_part_of(name.scope, adapter.key) &&
               (adapter.says_nothing() || !present.contains(name.scope));
    });
}

// Whether an attribute appears and disappears only together with its object. The first attribute of the
// object reports that.
bool is_detail(const StateName& name) {
    return name.attribute == kNumber || name.attribute == kSpeed || name.attribute == kIdentifier ||
           name.attribute == kLuns;
}

}  // namespace

Snapshot take_snapshot(const HostLook& host, const Snapshot& before) {
    if (host.answer == Answer::awaited) return before;
    Snapshot snapshot;
    const bool is_loaded = host.answer == Answer::here;
    const char* unloaded = host.answer == Answer::late ? kNoAnswer : "cannot be loaded";
    snapshot.states[{"", "library", "", kState}] = is_loaded ? "loaded" : unloaded;
    if (!is_loaded) keep(snapshot, before, [](const StateName&) { return true; });
    for (const AdapterLook& adapter : host.adapters) {
        if (adapter.is_wanted(before.labels.contains(adapter.key))) add_adapter(adapter, snapshot, before);
    }
    return snapshot;
}

std::vector<StateChange> changes_between(const Snapshot& before, const Snapshot& after) {
    std::vector<StateChange> changes;
    for (const auto& [name, value] : before.states) {
        const auto now = after.states.find(name);
        if (now == after.states.end()) {
            if (!is_detail(name)) changes.push_back({name, label_of(before, name.scope), value, {}});
        } else if (now->second != value) {
            changes.push_back({name, label_of(after, name.scope), value, now->second});
        }
    }
    for (const auto& [name, value] : after.states) {
        if (!before.states.contains(name) && !is_detail(name))
            changes.push_back({name, label_of(after, name.scope), {}, value});
    }
    return changes;
}

}  // namespace trelmctl
