// tree.cpp - `trelmctl tree`: the physical ports with their targets and LUNs, and their virtual ports with
// theirs. A failure is shown at its place, and the rest is shown too.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <string_view>

#include "commands.h"
#include "host_tree.h"
#include "table.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

// ---- As text ----

struct Node {
    std::string text;
    std::vector<Node> children;
};

struct Strokes {
    std::string_view middle, last, beside, below;
};
constexpr Strokes kDrawn{"├── ", "└── ", "│   ", "    "};
constexpr Strokes kAscii{"|-- ", "`-- ", "|   ", "    "};

void draw(const std::vector<Node>& nodes, const std::string& indent, const Strokes& strokes,
          std::string& out) {
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        const bool last = i + 1 == nodes.size();
        const std::string line =
            fmt::format("{}{}{}", indent, last ? strokes.last : strokes.middle, nodes[i].text);
        out += fitted(line, Output::width()) + "\n";
        draw(nodes[i].children, fmt::format("{}{}", indent, last ? strokes.below : strokes.beside), strokes,
             out);
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

std::vector<Node> lun_nodes(const TargetBranch& target, bool wide) {
    Siblings siblings({{}, {"", kRight}, {}, {}, {}, {}, {"", kRight}, {"", kRight}, {}});
    for (const ListedLun& lun : target.luns) {
        std::vector<Node> failed;
        add_failure(lun.failure, failed);
        siblings.add({"LUN", lun_text(lun.lun), type_text(lun), lun.vendor, lun.product, lun.revision,
                      capacity_text(lun), wide ? block_size_text(lun) : "", lun.name},
                     std::move(failed));
    }
    std::vector<Node> nodes = siblings.take();
    add_failure(target.failure, nodes);
    return nodes;
}

std::vector<Node> target_nodes(const PortBranch& port, bool wide) {
    Siblings siblings({{}, {"", kRight}, {}, {}});
    for (const TargetBranch& target : port.targets) {
        siblings.add({"target", fmt::to_string(number(target.info.ScsiTgtNum)), address(target.info.WWPN),
                      target_state_words(target.info.PortState)},
                     lun_nodes(target, wide));
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

std::string to_text(const AdapterBranch& adapter, bool wide) {
    std::string out = fmt::format("port {}", adapter.instance);
    std::vector<Node> nodes;
    for (std::size_t i = 0; i < adapter.ports.size(); ++i) {
        const PortBranch& port = adapter.ports[i];
        std::vector<Node> targets = target_nodes(port, wide);
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
    out = fitted(out, Output::width()) + "\n";
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

void run_tree(const Options& options, Output& output) {
    const LoadedHost host;
    Progress progress;
    bool none = true;
    Json& ports = output.document()["ports"] = Json::array();
    const LunDetail detail = options.wide ? LunDetail::named : LunDetail::listed;
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        const auto adapter = ask_branch(host, instance, options.filter, detail, progress);
        if (!adapter) continue;
        none = false;
        for (Failure& failure : failures_of(*adapter)) output.fail(std::move(failure));
        if (output.json()) {
            ports.push_back(to_json(*adapter));
        } else {
            output.print(to_text(*adapter, options.wide));
            output.flush();
        }
    }
    if (none && !output.json()) output.print(kNoPort);
}

}  // namespace trelmctl
