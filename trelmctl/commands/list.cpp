// list.cpp - `trelmctl list`: a line for each physical port, including those that fail.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "ports.h"
#include "table.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

// What could be read of a port.
struct Listed {
    uint32_t instance = 0;
    std::optional<TRELM_FCOE_INFO> adapter;
    std::optional<PortState> port;
    std::optional<Failure> failure;
};

Listed ask(const LoadedHost& host, uint32_t instance) {
    Listed listed;
    listed.instance = instance;
    try {
        const trelm::Adapter adapter = open_adapter(host, instance);
        listed.adapter = ask_adapter_info(adapter);
        listed.port = ask_physical(adapter);
        listed.failure = listed.port->failure;
    } catch (const trelm::Error& error) {
        listed.failure = explain(error);
    }
    return listed;
}

const std::vector<Column> kColumns{{"PORT", kRight},
                                   {"STATE"},
                                   {"HBA"},
                                   {"WWPN"},
                                   {"SPEED", kRight, 3},
                                   {"MODEL", Column::Align::left, 5},
                                   {"DRIVER", Column::Align::left, 4},
                                   {"PCI", Column::Align::left, 2},
                                   {"VPORTS", kRight, 1},
                                   {"TARGETS", kRight}};

std::vector<std::string> row(const Listed& listed) {
    std::vector<std::string> cells(kColumns.size(), "-");
    cells[0] = fmt::to_string(listed.instance);
    cells[1] = "failed";
    if (listed.adapter) {
        cells[3] = address(listed.adapter->WWPN);
        cells[5] = field_text(listed.adapter->ModelName);
        cells[6] = field_text(listed.adapter->DriverName);
        cells[7] = pci_address(*listed.adapter);
        cells[8] = fmt::to_string(number(listed.adapter->NpivCount));
    }
    if (listed.port && listed.port->info) {
        cells[1] = port_state_words(listed.port->info->PortState);
        cells[2] = field_text(listed.port->info->HbaName);
        cells[4] = speed_words(listed.port->info->PortSpeed);
        cells[9] = fmt::to_string(number(listed.port->info->TgtCount));
    }
    return cells;
}

// Every port has all members; unknown values are null.
Json to_json(const Listed& listed) {
    const TRELM_FCOE_INFO* adapter = listed.adapter ? &*listed.adapter : nullptr;
    const TRELM_VNPORT_INFO* port = listed.port && listed.port->info ? &*listed.port->info : nullptr;
    return {{"instance", listed.instance},
            {"npiv_index", port ? Json(number(port->NpivIndex)) : Json()},
            {"state", port ? Json(port_state_words(port->PortState)) : Json()},
            {"state_raw", port ? Json(number(port->PortState)) : Json()},
            {"hba_name", port ? Json(field_text(port->HbaName)) : Json()},
            {"wwpn", adapter ? Json(address(adapter->WWPN)) : Json()},
            {"speed", port ? Json(speed_words(port->PortSpeed)) : Json()},
            {"speed_raw", port ? Json(number(port->PortSpeed)) : Json()},
            {"model", adapter ? Json(field_text(adapter->ModelName)) : Json()},
            {"driver", adapter ? Json(field_text(adapter->DriverName)) : Json()},
            {"pci_address", adapter ? Json(pci_address(*adapter)) : Json()},
            {"virtual_ports", adapter ? Json(number(adapter->NpivCount)) : Json()},
            {"targets", port ? Json(number(port->TgtCount)) : Json()},
            {"error", listed.failure ? to_json(*listed.failure) : Json()}};
}

}  // namespace

void run_list(const Options& options, Output& output) {
    const LoadedHost host;
    Table table(kColumns);
    Json& ports = output.document()["ports"] = Json::array();
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        const Listed listed = ask(host, instance);
        if (!options.filter.admits(instance, listed.adapter, listed.port)) continue;
        table.add(row(listed));
        ports.push_back(to_json(listed));
        if (listed.failure) output.fail(*listed.failure);
    }
    if (output.json()) return;
    output.print(ports.empty() ? kNoPort : table.text(Output::width()));
}

}  // namespace trelmctl
