// list.cpp - `trelmctl list`: a line for each physical port, also for one that fails.
#include <fmt/format.h>

#include "commands.h"
#include "ports.h"
#include "table.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

// A port as far as it could be asked.
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
        const trelm::Adapter adapter(host.library(), instance);
        listed.adapter = adapter.info();
        listed.port = ask_ports(adapter).front();
        listed.failure = listed.port->failure;
    } catch (const trelm::Error& error) {
        listed.failure = explain(error);
    }
    return listed;
}

std::string pci_address(const TRELM_FCOE_INFO& info) {
    return fmt::format("{:04x}:{:02x}:{:02x}.{:x}", +info.PciDomainNum, +info.PciBusNum, +info.PciDeviceNum,
                       +info.PciFunctionNum);
}

std::vector<std::string> row(const Listed& listed) {
    std::vector<std::string> cells(9, "-");
    cells[0] = fmt::to_string(listed.instance);
    cells[1] = "failed";
    if (listed.adapter) {
        cells[2] = address(listed.adapter->WWPN);
        cells[4] = field_text(listed.adapter->ModelName);
        cells[5] = field_text(listed.adapter->DriverName);
        cells[6] = pci_address(*listed.adapter);
        cells[7] = fmt::to_string(number(listed.adapter->NpivCount));
    }
    if (listed.port && listed.port->info) {
        cells[1] = port_state_words(listed.port->info->PortState);
        cells[3] = speed_words(listed.port->info->PortSpeed);
        cells[8] = fmt::to_string(number(listed.port->info->TgtCount));
    }
    return cells;
}

Json to_json(const Listed& listed) {
    Json json{{"instance", listed.instance}};
    if (listed.port && listed.port->info) {
        const TRELM_VNPORT_INFO& info = *listed.port->info;
        json["npiv_index"] = number(info.NpivIndex);
        json["state"] = port_state_words(info.PortState);
        json["state_raw"] = number(info.PortState);
        json["speed"] = speed_words(info.PortSpeed);
        json["speed_raw"] = number(info.PortSpeed);
        json["targets"] = number(info.TgtCount);
    }
    if (listed.adapter) {
        json["wwpn"] = address(listed.adapter->WWPN);
        json["model"] = field_text(listed.adapter->ModelName);
        json["driver"] = field_text(listed.adapter->DriverName);
        json["pci_address"] = pci_address(*listed.adapter);
        json["virtual_ports"] = number(listed.adapter->NpivCount);
    }
    if (listed.failure) json["error"] = to_json(*listed.failure);
    return json;
}

}  // namespace

void run_list(const Options&, Output& output) {
    const LoadedHost host;
    using Align = Column::Align;
    Table table({{"PORT", Align::right}, {"STATE"}, {"WWPN"}, {"SPEED", Align::right}, {"MODEL"}, {"DRIVER"}, {"PCI"},
                 {"VPORTS", Align::right}, {"TARGETS", Align::right}});
    Json& ports = output.document()["ports"] = Json::array();
    for (uint32_t instance = 0; instance < host.port_count(); ++instance) {
        const Listed listed = ask(host, instance);
        table.add(row(listed));
        ports.push_back(to_json(listed));
        if (listed.failure) output.fail(*listed.failure);
    }
    if (!output.json()) output.print(table.text());
}

}  // namespace trelmctl
