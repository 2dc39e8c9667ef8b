// stats.cpp - `trelmctl stats`: the current counters of a port. watch.cpp implements --watch.
#include "counters.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string_view>

#include "commands.h"
#include "ports.h"
#include "requests.h"
#include "watch.h"

namespace trelmctl {
namespace {

std::string to_text(const TRELM_PORT_STATS& stats) {
    std::string out;
    std::string_view group;
    for (const Counter& counter : kCounters) {
        if (group != counter.group) {
            out += fmt::format("{}{:c}{}\n", group.empty() ? "" : "\n", counter.group[0] - 'a' + 'A',
                               counter.group + 1);
            group = counter.group;
        }
        out += fmt::format("  {:<32}{:>20}\n", counter.label, counter.of(stats));
    }
    return out;
}

}  // namespace

void run_stats(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort port = select_port(host, options.port);
    output.document()["instance"] = port.adapter.instance();
    output.document()["npiv_index"] = port.npiv_index;
    if (options.watch) return watch_stats(options, port, output);

    note_request("TRELM_GetPortStats", port.adapter.instance(), port.npiv_index);
    const TRELM_PORT_STATS stats = port.adapter.stats(port.npiv_index);
    if (!output.json()) return output.print_lines(to_text(stats), 4);
    for (const Counter& counter : kCounters)
        output.document()[counter.group][counter.key] = counter.of(stats);
}

}  // namespace trelmctl
