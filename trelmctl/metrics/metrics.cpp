#include "metrics.h"

#include <fmt/format.h>
#include <unistd.h>

#include "catalogue.h"
#include "exporter.h"
#include "failure.h"
#include "output.h"
#include "ports.h"
#include "text_file.h"

namespace trelmctl::metrics {
namespace {

// Reports the ports that have no metrics or only some of them.
void tell_failures(const HostSample& host, Output& output) {
    for (const AdapterSample& adapter : host.adapters) {
        for (const PortSample& port : adapter.ports) {
            if (port.complete()) continue;
            Failure failure = port.late
                                  ? tool_failure("LATE", "the port did not answer within the deadline",
                                                 "give it more time with --deadline, or look at its driver")
                                  : tool_failure("INCOMPLETE", "some values of the port could not be read",
                                                 "'trelmctl show PORT' says what failed");
            failure.operation = "sampling";
            failure.port = port.label;
            output.fail(std::move(failure));
        }
    }
}

void sample_once(const Settings& settings, Output& output) {
    Sampler sampler(settings.sampling);
    const HostSample host = sampler.sample();
    if (settings.output.empty()) {
        output.print(render(host, settings.format.value_or(Format::openmetrics)));
    } else {
        // Text-file collectors do not read OpenMetrics.
        replace_file(settings.output, render(host, settings.format.value_or(Format::prometheus)));
    }
    if (!host.loaded) {
        if (!sampler.is_stuck()) const LoadedHost explained;  // fails in the same way and reports why
        output.fail(tool_failure("LATE", "the drivers did not list their ports within the deadline",
                                 "give them more time with --deadline"));
    }
    tell_failures(host, output);
    // A call that hangs cannot be aborted, and the library cannot be freed during a call.
    if (sampler.is_stuck()) _exit(static_cast<int>(output.finish()));
}

}  // namespace

void run(const Settings& settings, Output& output, Draw draw) {
    if (settings.describe) return output.print(describe());
    if (!settings.listen.empty()) return serve(settings.sampling, settings.listen, settings.web_config, draw);
    sample_once(settings, output);
}

}  // namespace trelmctl::metrics
