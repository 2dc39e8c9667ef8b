#include "commands.h"

#include <fmt/format.h>

#include <array>

#include "text.h"

namespace trelmctl {

std::span<const Command> commands() {
    static constexpr std::array table{
        Command{"list", "List the FCoE ports of this host with their present state", NO_ARGUMENTS, run_list},
        Command{"show", "Show all that is known of a port and its adapter", PORT, run_show},
        Command{"version", "Show the versions of this tool and of the library (works on any machine)",
                NO_ARGUMENTS, run_version},
        Command{"stats", "Show the counters of a port, or watch their rates", PORT, run_stats},
        Command{"metrics", "Write counters and states as metrics for Prometheus", NO_ARGUMENTS, run_metrics},
        Command{"targets", "List the SCSI targets that a port sees", PORT, run_targets},
        Command{"luns", "List the LUNs of a target", PORT | TARGET, run_luns},
        Command{"tree", "Show all ports with their virtual ports, targets and LUNs", NO_ARGUMENTS, run_tree},
        Command{"scsi", "Send a SCSI command to a LUN", PORT | TARGET | LUN, run_scsi},
        Command{"inquiry", "Ask a LUN what it is (INQUIRY)", PORT | TARGET | LUN, run_inquiry},
        Command{"capacity", "Ask a LUN for its size (READ CAPACITY)", PORT | TARGET | LUN, run_capacity},
    };
    return table;
}

void run_metrics(const Options& options, Output& output) { metrics::run(options.metrics, output); }

void run_version(const Options&, Output& output) {
    const uint32_t number = trelm::Library::version_number();
    if (output.json()) {
        output.document()["tool_version"] = TRELMCTL_VERSION;
        output.document()["library_version"] = escaped(trelm::Library::version());
        output.document()["library_version_number"] = hex32(number);
        output.document()["library_description"] = escaped(trelm::Library::description());
        return;
    }
    output.print(fmt::format("trelmctl  {}\nlibtrelm  {} ({}): {}\n", TRELMCTL_VERSION,
                             trelm::Library::version(), hex32(number), trelm::Library::description()));
}

}  // namespace trelmctl
