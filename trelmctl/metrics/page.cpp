#include "page.h"

#include <fmt/format.h>
#include <sys/utsname.h>

#include <string_view>

#include "replaced.h"
#include "text.h"
#include "words.h"

namespace trelmctl::metrics {
namespace {

// A picture of more targets would be unreadable.
constexpr std::size_t kMostTargets = 256;

constexpr std::string_view kHead = R"(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>FCoE ports of {0}</title>
<style>
body {{ font-family: sans-serif; margin: 2em; }}
table {{ border-collapse: collapse; margin-bottom: 2em; }}
th, td {{ border: 1px solid #bbb; padding: 0.3em 0.7em; text-align: left; }}
td.number {{ text-align: right; }}
tr.bad td {{ background: #fde0dc; }}
</style>
</head>
<body>
<h1>FCoE ports of {0}</h1>
)";

std::string html(std::string_view text) { return replaced(text, kMarkupEscapes); }

std::string state_of(const PortSample& port) {
    if (port.late) return "no answer in time";
    return port.info ? port_state_words(port.info->PortState) : "failed";
}

void append_port(const AdapterSample& adapter, const PortSample& port, std::string& out) {
    const bool good = port.complete() && port.info->PortState == TRELM_PORTSTATE_ONLINE;
    const auto told = [&](auto text) { return port.info ? html(text(*port.info)) : std::string(); };
    out += fmt::format(
        "<tr{}><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td><td>{}</td>"
        "<td class=\"number\">{}</td></tr>\n",
        good ? "" : " class=\"bad\"", port.label,
        told([](const auto& info) { return field_text(info.HbaName); }), state_of(port),
        told([](const auto& info) { return address(info.WWPN); }),
        told([](const auto& info) { return info.PortSpeed ? speed_words(info.PortSpeed) : ""; }),
        adapter.info ? html(field_text(adapter.info->ModelName)) : "",
        told([](const auto& info) { return fmt::to_string(number(info.TgtCount)); }));
}

std::string host_name() {
    utsname names{};
    return uname(&names) == 0 ? escaped(names.nodename) : "this host";
}

TargetBranch branch_of(const TargetSample& target) {
    TargetBranch branch{.info = target.info, .luns = {}, .failure = {}};
    for (const LunSample& lun : target.lun_list) branch.luns.push_back(lun.listed);
    return branch;
}

AdapterBranch branch_of(const AdapterSample& adapter, uint32_t instance) {
    AdapterBranch branch{.instance = instance, .info = adapter.info, .ports = {}, .failure = {}};
    for (const PortSample& port : adapter.ports) {
        PortBranch& added = branch.ports.emplace_back();
        added.port.npiv_index = port.npiv_index;
        added.port.info = port.info;
        if (!port.targets) continue;
        for (const TargetSample& target : *port.targets) added.targets.push_back(branch_of(target));
    }
    return branch;
}

std::size_t count_targets(const HostSample& host) {
    std::size_t count = 0;
    for (const AdapterSample& adapter : host.adapters) {
        for (const PortSample& port : adapter.ports) count += port.targets ? port.targets->size() : 0;
    }
    return count;
}

std::string picture_of(const HostSample& host, const std::string& name, Draw draw) {
    if (count_targets(host) > kMostTargets) return "<p>There are too many targets for a picture.</p>\n";
    Topology topology(name);
    for (uint32_t instance = 0; instance < host.adapters.size(); ++instance)
        topology.add(branch_of(host.adapters[instance], instance));
    return draw(topology);
}

}  // namespace

std::string render_page(const HostSample& host, Draw draw) {
    const std::string name = host_name();
    std::string out = fmt::format(kHead, html(name));
    if (!host.loaded) {
        out += "<p>The library cannot be loaded, or its drivers do not answer.</p>\n";
    } else {
        out +=
            "<table>\n<tr><th>Port</th><th>HBA</th><th>State</th><th>WWPN</th><th>Speed</th><th>Model</th>"
            "<th>Targets</th></tr>\n";
        for (const AdapterSample& adapter : host.adapters) {
            for (const PortSample& port : adapter.ports) append_port(adapter, port, out);
        }
        out += "</table>\n" + picture_of(host, name, draw);
    }
    out += fmt::format(
        "<p><a href=\"metrics\">Metrics</a>. Sampled in {:.0f} ms by trelmctl {}.</p>\n</body>\n</html>\n",
        host.took.count() * 1000, TRELMCTL_VERSION);
    return out;
}

}  // namespace trelmctl::metrics
