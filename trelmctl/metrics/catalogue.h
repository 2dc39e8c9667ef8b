// catalogue.h - the table of all metrics: name, type, unit, labels, meaning, and source. The documentation
// contains the same table.
#pragma once

#include <span>
#include <string>
#include <variant>

#include "exposition.h"
#include "samples.h"

namespace trelmctl::metrics {

// Writes the samples of a metric for one object (a host, adapter, port, target or LUN). Writes nothing if the
// value is not known.
template <typename Thing>
using EmitFor = void (*)(const Thing& thing, Exposition& out);
using Emit = std::variant<EmitFor<HostSample>, EmitFor<AdapterSample>, EmitFor<PortSample>,
                          EmitFor<TargetSample>, EmitFor<LunSample>>;

struct Metric {
    Family family;
    std::string_view labels;  // as the documentation lists them
    Emit emit;
};

std::span<const Metric> catalogue();

std::string render(const HostSample& host, Format format);

// The catalogue as a Markdown table.
std::string describe();

}  // namespace trelmctl::metrics
