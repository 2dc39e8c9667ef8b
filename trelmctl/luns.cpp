// luns.cpp - `trelmctl luns`: a line for each LUN of a target, also for one that fails.
#include "commands.h"
#include "lun_list.h"
#include "table.h"
#include "text.h"
#include "words.h"

namespace trelmctl {

void run_luns(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    Progress progress;
    const std::vector<ListedLun> listed = list_luns(port.adapter, port.npiv_index, options.target, progress);
    progress.clear();

    using Align = Column::Align;
    Table table(
        {{"LUN", Align::right}, {"TYPE"}, {"VENDOR"}, {"PRODUCT"}, {"REV"}, {"CAPACITY", Align::right}});
    output.document()["instance"] = port.adapter.instance();
    output.document()["npiv_index"] = port.npiv_index;
    output.document()["target"] = options.target;
    Json& luns = output.document()["luns"] = Json::array();
    for (const ListedLun& lun : listed) {
        table.add({lun_text(lun.lun), device_type_words(lun.device_type), lun.vendor, lun.product,
                   lun.revision, capacity_text(lun)});
        luns.push_back(to_json(lun));
        if (lun.failure) output.fail(*lun.failure);
    }
    if (!output.json()) output.print(listed.empty() ? "The target has no LUNs.\n" : table.text());
}

}  // namespace trelmctl
