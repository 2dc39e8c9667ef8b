#include "commands.h"

#include <fmt/format.h>

#include <array>
#include <nlohmann/json.hpp>

#include "drawing.h"
#include "text.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

std::span<const Command> commands() {
    using enum Addressee;
    static constexpr std::array kTable{
        Command{"list", "List the FCoE ports of this host with their present state", none, run_list},
        Command{"show", "Show all that is known of a port and its adapter", port, run_show},
        Command{"stats", "Show the counters of a port, or watch their rates", port, run_stats},
        Command{"top", "Watch all ports on the whole terminal, with rates and graphs", none, run_top},
        Command{"monitor", "Print a line for each change of a state, until interrupted", none, run_monitor},
        Command{"metrics", "Write counters and states as metrics for Prometheus", none, run_metrics},
        Command{"targets", "List the SCSI targets that a port sees", port, run_targets},
        Command{"luns", "List the LUNs of a target", target, run_luns},
        Command{"tree", "Show all ports with their virtual ports, targets and LUNs", none, run_tree},
        Command{"topology", "Draw the ports with their FCFs, targets and LUNs", none, run_topology},
        Command{"scsi", "Send a SCSI command to a LUN", lun, run_scsi},
        Command{"inquiry", "Ask a LUN what it is (INQUIRY)", lun, run_inquiry},
        Command{"capacity", "Ask a LUN for its size (READ CAPACITY)", lun, run_capacity},
        Command{"version", "Show the versions of this tool and of the library (works on any machine)", none,
                run_version},
        Command{"help", "Show the help of a command", none, run_help},
        Command{"completion", "Print a script that completes words of trelmctl in a shell", none,
                run_completion},
    };
    return kTable;
}

void run_metrics(const Options& options, Output& output) {
    metrics::run(options.metrics, output,
                 [](const Topology& topology) { return drawing_of(topology, DrawingFormat::svg); });
}

void run_version(const Options&, Output& output) {
    const uint32_t number = trelm::Library::version_number();
    if (output.json()) {
        output.document()["tool_version"] = TRELMCTL_VERSION;
        output.document()["library_version"] = escaped(trelm::Library::version());
        output.document()["library_version_number"] = hex32(number);
        output.document()["library_description"] = escaped(trelm::Library::description());
        return;
    }
    output.print_lines(fmt::format("trelmctl  {}\nlibtrelm  {} ({}): {}\n", TRELMCTL_VERSION,
                                   trelm::Library::version(), hex32(number), trelm::Library::description()),
                       10);
}

}  // namespace trelmctl
