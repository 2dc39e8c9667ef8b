#include "host_tree.h"

#include <fmt/format.h>

namespace trelmctl {
namespace {

TargetBranch ask_target(const trelm::Adapter& adapter, uint32_t npiv_index, const TRELM_TGT_INFO& info,
                        LunDetail detail, Progress& progress) {
    TargetBranch branch{info, {}, {}};
    try {
        branch.luns = list_luns(adapter, npiv_index, info.ScsiTgtNum, detail, progress);
    } catch (const CommandFailed& failed) {
        branch.failure = failed.failure();
    }
    return branch;
}

PortBranch ask_port_branch(const trelm::Adapter& adapter, const PortState& port, LunDetail detail,
                           Progress& progress) {
    PortBranch branch{port, {}, {}};
    if (port.failure) return branch;
    progress.say(
        fmt::format("port {}: listing its targets", port_label(adapter.instance(), port.npiv_index)));
    const TargetList list = list_targets(adapter, port.npiv_index);
    branch.failure = list.failure;
    for (const TRELM_TGT_INFO& target : list.targets) {
        branch.targets.push_back(ask_target(adapter, port.npiv_index, target, detail, progress));
    }
    return branch;
}

}  // namespace

std::optional<AdapterBranch> ask_branch(const LoadedHost& host, uint32_t instance, const PortFilter& filter,
                                        LunDetail detail, Progress& progress) {
    AdapterBranch branch;
    branch.instance = instance;
    try {
        const trelm::Adapter adapter = open_adapter(host, instance);
        branch.info = ask_adapter_info(adapter);
        const std::vector<PortState> ports = ask_ports(adapter);
        if (!filter.admits(instance, branch.info, ports.front())) return std::nullopt;
        for (const PortState& port : ports)
            branch.ports.push_back(ask_port_branch(adapter, port, detail, progress));
    } catch (const trelm::Error& error) {
        if (!filter.admits(instance, branch.info, {})) return std::nullopt;
        branch.failure = explain(error);
    }
    progress.clear();
    return branch;
}

std::vector<Failure> failures_of(const AdapterBranch& adapter) {
    std::vector<Failure> failures;
    const auto take = [&](const std::optional<Failure>& failure) {
        if (failure) failures.push_back(*failure);
    };
    take(adapter.failure);
    for (const PortBranch& port : adapter.ports) {
        take(port.port.failure);
        take(port.failure);
        for (const TargetBranch& target : port.targets) {
            take(target.failure);
            for (const ListedLun& lun : target.luns) take(lun.failure);
        }
    }
    return failures;
}

}  // namespace trelmctl
