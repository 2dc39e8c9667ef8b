// targets.cpp - `trelmctl targets`: a line for each target that answers; the drivers leave out those that are
// offline.
#include "targets.h"

#include <fmt/format.h>

#include "commands.h"
#include "table.h"
#include "text.h"
#include "words.h"

namespace trelmctl {

TargetList list_targets(const trelm::Adapter& adapter, uint32_t npiv_index) {
    TargetList list;
    const uint32_t code = adapter.list_targets(npiv_index, list.targets);
    if (code != TRELM_STATUS_OK)
        list.failure = explain({code, "TRELM_GetTgtInfo", adapter.instance(), npiv_index});
    return list;
}

std::string port_id_text(const TRELM_TGT_INFO& target) {
    return "0x" + hex_bytes(target.PortID + 1, sizeof target.PortID - 1, "");
}

Json to_json(const TRELM_TGT_INFO& target) {
    return {{"target", number(target.ScsiTgtNum)},   {"state", target_state_words(target.PortState)},
            {"state_raw", number(target.PortState)}, {"wwpn", address(target.WWPN)},
            {"wwnn", address(target.WWNN)},          {"port_id", port_id_text(target)},
            {"lun_count", number(target.LunCount)}};
}

void run_targets(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    const TargetList list = list_targets(port.adapter, port.npiv_index);
    if (list.failure) output.fail(*list.failure);

    using Align = Column::Align;
    Table table(
        {{"TARGET", Align::right}, {"STATE"}, {"WWPN"}, {"WWNN"}, {"PORT ID"}, {"LUNS", Align::right}});
    output.document()["instance"] = port.adapter.instance();
    output.document()["npiv_index"] = port.npiv_index;
    Json& targets = output.document()["targets"] = Json::array();
    for (const TRELM_TGT_INFO& target : list.targets) {
        table.add({fmt::to_string(number(target.ScsiTgtNum)), target_state_words(target.PortState),
                   address(target.WWPN), address(target.WWNN), port_id_text(target),
                   fmt::to_string(number(target.LunCount))});
        targets.push_back(to_json(target));
    }
    if (output.json()) return;
    const bool none = list.targets.empty() && !list.failure;
    output.print(none ? "The port sees no targets.\n" : table.text());
}

}  // namespace trelmctl
