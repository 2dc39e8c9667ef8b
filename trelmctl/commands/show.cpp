// show.cpp - `trelmctl show`: all information records of a port, in groups. Each fact is written once in the
// code and printed as a line of text and as members of the JSON document.
#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "ports.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

struct Fact {
    const char* key;    // of the JSON member
    const char* label;  // of the line
    std::string words;
    Json raw;           // the value in the record, if `words` is a text for it
    bool bare = false;  // the text is the number itself
};

Fact words(const char* key, const char* label, std::string text, Json raw = {}) {
    return {key, label, std::move(text), std::move(raw)};
}

template <typename Number>
Fact plain(const char* key, const char* label, Number value) {
    return {key, label, fmt::to_string(value), value, true};
}

template <std::size_t Width>
Fact text_of(const char* key, const char* label, const uint8_t (&field)[Width]) {
    return words(key, label, field_text(field));
}

template <std::size_t Width>
Fact address_of(const char* key, const char* label, const uint8_t (&field)[Width]) {
    return words(key, label, address(field));
}

struct Group {
    const char* key;
    const char* title;
    std::vector<Fact> facts;
};

Group port_group(uint32_t instance, const TRELM_VNPORT_INFO& port, const std::vector<uint32_t>& indexes) {
    return {
        "port",
        "Port",
        {plain("instance", "Instance", instance), plain("npiv_index", "NPIV index", number(port.NpivIndex)),
         text_of("hba_name", "HBA name", port.HbaName),
         words("port_type", "Type", port_type_words(port.PortType), number(port.PortType)),
         words("state", "State", port_state_words(port.PortState), number(port.PortState)),
         words("speed", "Speed", speed_words(port.PortSpeed), number(port.PortSpeed)),
         words("supported_speeds", "Supported speeds", speed_words(port.PortSupportedSpeed),
               number(port.PortSupportedSpeed)),
         address_of("wwpn", "WWPN", port.WWPN), address_of("wwnn", "WWNN", port.WWNN),
         address_of("parent_wwpn", "Parent WWPN", port.ParentWWPN),
         words("port_fcid", "Port identifier", fmt::format("0x{:06x}", number(port.PortFCID)),
               number(port.PortFCID)),
         plain("targets", "Targets", number(port.TgtCount)),
         plain("fcf_count", "FCFs", number(port.FcfCount)),
         words("npiv_indexes", "NPIV indexes", fmt::format("{}", fmt::join(indexes, ", ")), indexes)}};
}

Group fabric_group(const TRELM_VNPORT_INFO& port) {
    return {"fabric",
            "Fabric",
            {address_of("fabric_name", "Fabric name", port.FabricName),
             address_of("switch_name", "Switch name", port.SwitchName),
             address_of("fcf_mac", "FCF MAC", port.FcfMAC),
             words("fc_map", "FC-MAP", fmt::format("0x{:06x}", number(port.FCMap)), number(port.FCMap)),
             plain("fabric_vlan", "Fabric VLAN", number(port.FabricVlan)),
             plain("fabric_priority", "FCF priority", unsigned{port.FabricPriority}),
             plain("keep_alive_timeout", "Keep-alive timeout", number(port.KeepAliveTimeout))}};
}

Group adapter_group(const TRELM_FCOE_INFO& info) {
    return {"adapter",
            "Adapter",
            {text_of("model", "Model", info.ModelName), text_of("description", "Description", info.ModelDesc),
             plain("physical_port_number", "Port on the adapter", number(info.PhyPortNum)),
             address_of("wwpn", "WWPN", info.WWPN), address_of("wwnn", "WWNN", info.WWNN),
             address_of("mac", "MAC", info.MAC), plain("mtu", "MTU, bytes", number(info.MTU)),
             plain("vlan", "VLAN", number(info.VlanID)),
             plain("virtual_ports", "Virtual ports", number(info.NpivCount)),
             plain("media_type", "Media type", number(info.MediaType)),
             text_of("firmware_version", "Firmware", info.FWVersion),
             text_of("management_firmware_version", "Management firmware", info.MFWVersion)}};
}

Group driver_group(const TRELM_FCOE_INFO& info) {
    return {"driver",
            "Driver",
            {text_of("name", "Name", info.DriverName), text_of("version", "Version", info.DriverVersion),
             text_of("date", "Date", info.DriverDate),
             words("loaded", "Loaded", std::string(yes_or_no(info.DriverLoaded == 1)),
                   unsigned{info.DriverLoaded})}};
}

Group pci_group(const TRELM_FCOE_INFO& info) {
    const auto id = [](const char* key, const char* label, uint16_t value) {
        return words(key, label, fmt::format("0x{:04x}", value), value);
    };
    return {
        "pci",
        "PCI",
        {words("address", "Address", pci_address(info)), id("vendor_id", "Vendor id", info.VendorID),
         id("device_id", "Device id", info.DeviceID),
         id("subsystem_vendor_id", "Subsystem vendor id", info.SubVendorID),
         id("subsystem_id", "Subsystem id", info.SubSystemID), id("revision", "Revision", info.PciRevision),
         plain("chip_revision", "Chip revision", number(info.ChipRevId)),
         words("link", "Link", pcie_words(info.PCIESpeed, info.PCIEWidth),
               Json{{"speed", number(info.PCIESpeed)}, {"width", number(info.PCIEWidth)}})}};
}

constexpr std::size_t kLabel = 20;  // columns of a label

std::string to_text(const std::vector<Group>& groups) {
    std::string out;
    for (const Group& group : groups) {
        out += fmt::format("{}{}\n", out.empty() ? "" : "\n", group.title);
        for (const Fact& fact : group.facts) {
            out += fmt::format("  {:<{}} {}", fact.label, kLabel, fact.words.empty() ? "-" : fact.words);
            // Words do not show the number; formatted numbers do.
            const bool hidden = fact.raw.is_number() && !fact.bare && !fact.words.starts_with("0x");
            out += hidden ? fmt::format(" ({})\n", fact.raw.dump()) : "\n";
        }
    }
    return out;
}

// A text that the driver left empty is null.
Json to_json(const Group& group) {
    Json json;
    for (const Fact& fact : group.facts) {
        if (fact.bare || fact.raw.is_array()) {
            json[fact.key] = fact.raw;
            continue;
        }
        json[fact.key] = fact.words.empty() ? Json() : Json(fact.words);
        if (!fact.raw.is_null()) json[std::string(fact.key) + "_raw"] = fact.raw;
    }
    return json;
}

}  // namespace

void run_show(const Options& options, Output& output) {
    const LoadedHost host;
    const SelectedPort selected = select_port(host, options.port);
    const TRELM_FCOE_INFO info = ask_adapter_info(selected.adapter);
    const PortState port = ask_port(selected.adapter, selected.npiv_index);
    std::vector<Group> groups;
    if (port.info) {
        groups.push_back(
            port_group(selected.adapter.instance(), *port.info, selected.adapter.port_indexes()));
        groups.push_back(fabric_group(*port.info));
    } else {
        output.fail(*port.failure);
        output.document()["port"] = {{"instance", selected.adapter.instance()},
                                     {"npiv_index", port.npiv_index}};
        output.document()["fabric"] = nullptr;
    }
    for (const auto& group : {adapter_group(info), driver_group(info), pci_group(info)})
        groups.push_back(group);
    for (const Group& group : groups) output.document()[group.key] = to_json(group);
    if (!output.json()) output.print_lines(to_text(groups), kLabel + 3);
}

}  // namespace trelmctl
