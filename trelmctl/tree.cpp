// tree.cpp - `trelmctl tree`: the physical ports with their targets, their virtual ports with theirs, and the
// LUNs. What fails is told at its place, and the rest is shown.
#include <fmt/format.h>

#include <string_view>

#include "commands.h"
#include "lun_list.h"
#include "table.h"
#include "targets.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

struct TargetBranch {
    TRELM_TGT_INFO info;
    std::vector<ListedLun> luns;
    std::optional<Failure> failure;
};

struct PortBranch {
    PortState port;
    std::vector<TargetBranch> targets;
    std::optional<Failure> failure;  // of the target listing
};

struct AdapterBranch {
    uint32_t instance = 0;
    std::optional<TRELM_FCOE_INFO> info;
    std::vector<PortBranch> ports;  // the physical one first
    std::optional<Failure> failure;
};

// ---- Asking ----

TargetBranch ask_target(const trelm::Adapter& adapter, uint32_t npiv_index, const TRELM_TGT_INFO& info,
                        Progress& progress) {
    TargetBranch branch{info, {}, {}};
    try {
        branch.luns = list_luns(adapter, npiv_index, info.ScsiTgtNum, progress);
    } catch (const CommandFailed& failed) {
        branch.failure = failed.failure();
    }
    return branch;
}

PortBranch ask_port_branch(const trelm::Adapter& adapter, const PortState& port, Progress& progress) {
    PortBranch branch{port, {}, {}};
    if (port.failure) return branch;
    progress.say(
        fmt::format("port {}: listing its targets", port_label(adapter.instance(), port.npiv_index)));
    const TargetList list = list_targets(adapter, port.npiv_index);
    branch.failure = list.failure;
    for (const TRELM_TGT_INFO& target : list.targets) {
        branch.targets.push_back(ask_target(adapter, port.npiv_index, target, progress));
    }
    return branch;
}

AdapterBranch ask_adapter(const LoadedHost& host, uint32_t instance, Progress& progress) {
    AdapterBranch branch;
    branch.instance = instance;
    try {
        const trelm::Adapter adapter(host.library(), instance);
        branch.info = adapter.info();
        for (const PortState& port : ask_ports(adapter))
            branch.ports.push_back(ask_port_branch(adapter, port, progress));
    } catch (const trelm::Error& error) {
        branch.failure = explain(error);
    }
    return branch;
}

template <typename Take>
void each_failure(const AdapterBranch& adapter, Take take) {
    const auto told = [&](const std::optional<Failure>& failure) {
        if (failure) take(*failure);
    };
    told(adapter.failure);
    for (const PortBranch& port : adapter.ports) {
        told(port.port.failure);
        told(port.failure);
        for (const TargetBranch& target : port.targets) {
            told(target.failure);
            for (const ListedLun& lun : target.luns) told(lun.failure);
        }
    }
}

// ---- As text ----

struct Node {
    std::string text;
    std::vector<Node> children;
};

struct Lines {
    std::string_view middle, last, beside, below;
};
constexpr Lines kDrawn{"├── ", "└── ", "│   ", "    "};
constexpr Lines kAscii{"|-- ", "`-- ", "|   ", "    "};

void draw(const std::vector<Node>& nodes, const std::string& indent, const Lines& lines, std::string& out) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const bool last = i + 1 == nodes.size();
        out += fmt::format("{}{}{}\n", indent, last ? lines.last : lines.middle, nodes[i].text);
        draw(nodes[i].children, fmt::format("{}{}", indent, last ? lines.below : lines.beside), lines, out);
    }
}

void add_failure(const std::optional<Failure>& failure, std::vector<Node>& nodes) {
    if (!failure) return;
    const std::string code = failure->code ? " (" + hex32(*failure->code) + ")" : "";
    nodes.push_back({fmt::format("[failed: {}{}]", failure->meaning, code), {}});
}

// Nodes of one kind, their texts aligned with one another.
class Siblings {
  public:
    explicit Siblings(std::vector<Column> columns) : table_(std::move(columns)) {}

    void add(std::vector<std::string> cells, std::vector<Node> children) {
        table_.add(std::move(cells));
        nodes_.push_back({"", std::move(children)});
    }
    std::vector<Node> take() {
        const std::vector<std::string> lines = table_.lines();
        for (std::size_t i = 0; i < nodes_.size(); ++i) nodes_[i].text = lines[i];
        return std::move(nodes_);
    }

  private:
    Table table_;
    std::vector<Node> nodes_;
};

std::vector<Node> lun_nodes(const TargetBranch& target) {
    Siblings siblings({{}, {"", Column::Align::right}, {}, {}, {}, {}, {"", Column::Align::right}});
    for (const ListedLun& lun : target.luns) {
        std::vector<Node> failed;
        add_failure(lun.failure, failed);
        siblings.add({"LUN", lun_text(lun.lun), device_type_words(lun.device_type), lun.vendor, lun.product,
                      lun.revision, capacity_text(lun)},
                     std::move(failed));
    }
    std::vector<Node> nodes = siblings.take();
    add_failure(target.failure, nodes);
    return nodes;
}

std::vector<Node> target_nodes(const PortBranch& port) {
    Siblings siblings({{}, {"", Column::Align::right}, {}, {}});
    for (const TargetBranch& target : port.targets) {
        siblings.add({"target", fmt::to_string(number(target.info.ScsiTgtNum)), address(target.info.WWPN),
                      target_state_words(target.info.PortState)},
                     lun_nodes(target));
    }
    std::vector<Node> nodes = siblings.take();
    add_failure(port.port.failure, nodes);
    add_failure(port.failure, nodes);
    return nodes;
}

std::string port_text(const PortState& port) {
    if (!port.info) return "failed";
    const std::string hba = field_text(port.info->HbaName);
    return fmt::format("{}{}{}  {}  {}", hba, hba.empty() ? "" : "  ", address(port.info->WWPN),
                       port_state_words(port.info->PortState), speed_words(port.info->PortSpeed));
}

std::string to_text(const AdapterBranch& adapter) {
    std::string out = fmt::format("port {}", adapter.instance);
    std::vector<Node> nodes;
    for (std::size_t i = 0; i < adapter.ports.size(); ++i) {
        const PortBranch& port = adapter.ports[i];
        std::vector<Node> targets = target_nodes(port);
        if (i == 0) {
            out += "  " + port_text(port.port);
            nodes = std::move(targets);
        } else {
            nodes.push_back({fmt::format("virtual port {}/{}  {}", adapter.instance, port.port.npiv_index,
                                         port_text(port.port)),
                             std::move(targets)});
        }
    }
    if (adapter.info) out += "  " + field_text(adapter.info->ModelName);
    out += "\n";
    add_failure(adapter.failure, nodes);
    draw(nodes, "", utf8_locale() ? kDrawn : kAscii, out);
    return out;
}

// ---- As JSON ----

Json to_json(const TargetBranch& target) {
    Json json = trelmctl::to_json(target.info);
    Json& luns = json["luns"] = Json::array();
    for (const ListedLun& lun : target.luns) luns.push_back(to_json(lun));
    json["error"] = target.failure ? to_json(*target.failure) : Json();
    return json;
}

Json to_json(const PortBranch& branch) {
    const TRELM_VNPORT_INFO* info = branch.port.info ? &*branch.port.info : nullptr;
    Json json{{"npiv_index", branch.port.npiv_index},
              {"hba_name", info ? Json(field_text(info->HbaName)) : Json()},
              {"wwpn", info ? Json(address(info->WWPN)) : Json()},
              {"state", info ? Json(port_state_words(info->PortState)) : Json()},
              {"state_raw", info ? Json(number(info->PortState)) : Json()},
              {"speed", info ? Json(speed_words(info->PortSpeed)) : Json()},
              {"speed_raw", info ? Json(number(info->PortSpeed)) : Json()}};
    const auto& failure = branch.port.failure ? branch.port.failure : branch.failure;
    json["error"] = failure ? to_json(*failure) : Json();
    Json& targets = json["targets"] = Json::array();
    for (const TargetBranch& target : branch.targets) targets.push_back(to_json(target));
    return json;
}

Json to_json(const AdapterBranch& adapter) {
    Json json{{"instance", adapter.instance},
              {"model", adapter.info ? Json(field_text(adapter.info->ModelName)) : Json()}};
    if (!adapter.ports.empty()) json.update(to_json(adapter.ports.front()));
    if (adapter.failure) json["error"] = to_json(*adapter.failure);
    Json& virtual_ports = json["virtual_ports"] = Json::array();
    for (std::size_t i = 1; i < adapter.ports.size(); ++i) virtual_ports.push_back(to_json(adapter.ports[i]));
    return json;
}

}  // namespace

void run_tree(const Options&, Output& output) {
    const LoadedHost host;
    Progress progress;
    Json& ports = output.document()["ports"] = Json::array();
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        const AdapterBranch adapter = ask_adapter(host, instance, progress);
        progress.clear();
        each_failure(adapter, [&](const Failure& failure) { output.fail(failure); });
        if (output.json()) {
            ports.push_back(to_json(adapter));
        } else {
            output.print(to_text(adapter));
            output.flush();
        }
    }
}

}  // namespace trelmctl
