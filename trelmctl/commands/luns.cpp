// luns.cpp - `trelmctl luns`: a line for each LUN of a target, including those that fail.
#include "luns.h"

#include <nlohmann/json.hpp>

#include "commands.h"
#include "ports.h"
#include "table.h"
#include "text.h"

namespace trelmctl {
namespace {

Table table_of(const std::vector<ListedLun>& listed, bool wide) {
    std::vector<Column> columns{{"LUN", kRight}, {"TYPE"}, {"VENDOR"},
                                {"PRODUCT"},     {"REV"},  {"CAPACITY", kRight}};
    if (wide) {
        columns.push_back({"BLOCK", kRight});
        columns.push_back({"NAME"});
    }
    Table table(columns);
    for (const ListedLun& lun : listed) {
        std::vector<std::string> cells{lun_text(lun.lun), type_text(lun), lun.vendor,
                                       lun.product,       lun.revision,   capacity_text(lun)};
        if (wide) {
            cells.push_back(block_size_text(lun));
            cells.push_back(lun.name.empty() ? "-" : lun.name);
        }
        table.add(std::move(cells));
    }
    return table;
}

}  // namespace

void run_luns(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    Progress progress;
    const std::vector<ListedLun> listed =
        list_luns(port.adapter, port.npiv_index, options.target,
                  options.wide ? LunDetail::named : LunDetail::listed, progress);
    progress.clear();

    output.document()["instance"] = port.adapter.instance();
    output.document()["npiv_index"] = port.npiv_index;
    output.document()["target"] = options.target;
    Json& luns = output.document()["luns"] = Json::array();
    for (const ListedLun& lun : listed) {
        luns.push_back(to_json(lun));
        if (lun.failure) output.fail(*lun.failure);
    }
    if (output.json()) return;
    output.print(listed.empty() ? "The target has no LUNs.\n"
                                : table_of(listed, options.wide).text(Output::width()));
}

}  // namespace trelmctl
