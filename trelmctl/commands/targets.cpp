// targets.cpp - `trelmctl targets`: a line for each target. Drivers leave out targets that are offline.
#include "targets.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "ports.h"
#include "table.h"
#include "text.h"
#include "words.h"

namespace trelmctl {

void run_targets(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    const TargetList list = list_targets(port.adapter, port.npiv_index);
    if (list.failure) output.fail(*list.failure);

    Table table({{"TARGET", kRight},
                 {"STATE"},
                 {"WWPN"},
                 {"WWNN", Column::Align::left, 1},
                 {"PORT ID"},
                 {"LUNS", kRight}});
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
    output.print(none ? "The port sees no targets.\n" : table.text(Output::width()));
}

}  // namespace trelmctl
