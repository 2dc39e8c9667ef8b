// catalogue.h - every metric there is, as a table: name, type, unit, labels, what it says, and where it comes
// from. The documentation's table is this one.
#pragma once

#include <span>
#include <string>
#include <variant>

#include "exposition.h"
#include "samples.h"

namespace trelmctl::metrics {

// Writes the samples of a metric for one thing of its kind: nothing where the value is not known.
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
