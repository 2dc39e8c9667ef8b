#include "snapshot.h"

#include <fmt/format.h>

#include "luns.h"
#include "targets.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

constexpr const char* kState = "state";
constexpr const char* kSpeed = "speed";
constexpr const char* kIdentifier = "identifier";
constexpr const char* kLuns = "LUNs";

// The snapshot of one port of an adapter.
class PortScope {
  public:
    PortScope(Snapshot& snapshot, const Snapshot& before, std::string scope)
        : snapshot_(snapshot), before_(before), scope_(std::move(scope)) {}

    void set(const std::string& kind, const std::string& name, const std::string& attribute,
             std::string value) {
        snapshot_[{scope_, kind, name, attribute}] = std::move(value);
    }
    // Keeps the earlier entries of this kind.
    void keep(const std::string& kind) {
        for (const auto& [name, value] : before_) {
            if (name.scope == scope_ && name.kind == kind) snapshot_.emplace(name, value);
        }
    }
    const std::string& label() const { return scope_; }

  private:
    Snapshot& snapshot_;
    const Snapshot& before_;
    std::string scope_;
};

void add_targets(const trelm::Adapter& adapter, uint32_t npiv_index, PortScope& scope) {
    const TargetList list = list_targets(adapter, npiv_index);
    if (list.failure) {
        scope.keep("target");
        scope.keep("LUN");
    }
    for (const TRELM_TGT_INFO& target : list.targets) {
        const std::string name = address(target.WWPN);
        scope.set("target", name, kState, target_state_words(target.PortState));
        scope.set("target", name, kLuns, fmt::to_string(number(target.LunCount)));
        try {
            for (const uint64_t lun : report_luns(adapter, npiv_index, target.ScsiTgtNum))
                scope.set("LUN", name + " " + lun_text(lun), kState, "listed");
        } catch (const CommandFailed&) {
            scope.keep("LUN");
        }
    }
}

void add_port(const trelm::Adapter& adapter, const PortState& port, PortScope scope) {
    const char* kind = port.is_virtual() ? "virtual port" : "port";
    if (!port.info) {
        scope.set(kind, scope.label(), kState, "failed");
        for (const char* kept : {"FCF", "target", "LUN"}) scope.keep(kept);
        return;
    }
    const TRELM_VNPORT_INFO& info = *port.info;
    scope.set(kind, scope.label(), kState, port_state_words(info.PortState));
    scope.set(kind, scope.label(), kSpeed, speed_words(info.PortSpeed));
    scope.set(kind, scope.label(), kIdentifier, fmt::format("0x{:06x}", number(info.PortFCID)));
    if (number(info.FcfCount) > 0) scope.set("FCF", address(info.FcfMAC), "fabric", address(info.FabricName));
    add_targets(adapter, port.npiv_index, scope);
}

// Whether an attribute appears and disappears only together with its object. The first attribute of the
// object reports that.
bool is_detail(const StateName& name) {
    return name.attribute == kSpeed || name.attribute == kIdentifier || name.attribute == kLuns;
}

}  // namespace

Snapshot take_snapshot(const LoadedHost& host, const PortFilter& filter, const Snapshot& before) {
    Snapshot snapshot;
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        const std::string label = port_label(instance);
        try {
            const trelm::Adapter adapter = open_adapter(host, instance);
            const TRELM_FCOE_INFO info = ask_adapter_info(adapter);
            const std::vector<PortState> ports = ask_ports(adapter);
            if (!filter.admits(instance, info, ports.front())) continue;
            PortScope scope(snapshot, before, label);
            scope.set("driver", field_text(info.DriverName), "version", field_text(info.DriverVersion));
            for (std::size_t i = 0; i < ports.size(); ++i) {
                const std::string of = i == 0 ? label : port_label(instance, ports[i].npiv_index);
                add_port(adapter, ports[i], {snapshot, before, of});
            }
        } catch (const trelm::Error&) {
            if (filter.admits(instance, {}, {})) snapshot[{label, "port", label, kState}] = "failed";
        }
    }
    return snapshot;
}

std::vector<StateChange> changes_between(const Snapshot& before, const Snapshot& after) {
    std::vector<StateChange> changes;
    for (const auto& [name, value] : before) {
        const auto now = after.find(name);
        if (now == after.end()) {
            if (!is_detail(name)) changes.push_back({name, value, {}});
        } else if (now->second != value) {
            changes.push_back({name, value, now->second});
        }
    }
    for (const auto& [name, value] : after) {
        if (!before.contains(name) && !is_detail(name)) changes.push_back({name, {}, value});
    }
    return changes;
}

}  // namespace trelmctl
