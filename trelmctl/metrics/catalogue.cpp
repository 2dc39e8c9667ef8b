#include "catalogue.h"

#include <fmt/format.h>

#include <array>
#include <cstddef>
#include <optional>

#include "text.h"
#include "words.h"

namespace trelmctl::metrics {
namespace {

// ---- The counters of a port

using Stats = TRELM_PORT_STATS;

// A name from node_exporter's Fibre Channel collector has the same meaning and unit as there.
constexpr Metric counted(std::string_view name, std::string_view unit, std::string_view help,
                         EmitFor<PortSample> emit) {
    return {{name, MetricType::counter, unit, help}, "port", emit};
}

// The index of a counter in the table of counters.
constexpr std::size_t place_of(std::size_t offset) {
    std::size_t place = 0;
    while (kCounters.at(place).offset != offset) ++place;
    return place;
}

void emit_counter(const PortSample& port, Exposition& out, std::size_t place, uint64_t unit) {
    if (port.stats)
        out.add_counter(port.labels, kCounters[place].of(*port.stats) * unit, port.counting_since[place]);
}

constexpr uint64_t kMegabyte = 1'000'000;

// A counter whose values are in multiples of `unit`.
#define TRELM_COUNTER_OF(field, unit)                                    \
    [](const PortSample& port, Exposition& out) {                        \
        constexpr std::size_t kPlace = place_of(offsetof(Stats, field)); \
        emit_counter(port, out, kPlace, (unit));                         \
    }
#define TRELM_COUNTER(field) TRELM_COUNTER_OF(field, 1)

// ---- States and values

struct State {
    uint64_t value;
    std::string_view word;
};

constexpr std::array kPortStates{State{TRELM_PORTSTATE_ONLINE, "online"},
                                 State{TRELM_PORTSTATE_LINKDOWN, "link_down"}};
constexpr std::array kTargetStates{
    State{0, "unknown"}, State{1, "not_present"}, State{2, "online"},      State{3, "offline"},
    State{4, "blocked"}, State{5, "bypassed"},    State{6, "diagnostics"}, State{7, "link_down"},
    State{8, "error"},   State{9, "loopback"},    State{10, "deleted"},
};
constexpr uint16_t kTargetOnline = 2;

void emit_port_state(const PortSample& port, Exposition& out) {
    if (!port.info) return;
    bool known = false;
    for (const State& state : kPortStates) {
        out.add_state(port.labels, state.word, port.info->PortState == state.value);
        known = known || port.info->PortState == state.value;
    }
    out.add_state(port.labels, "other", !known);
}

void emit_target_states(const PortSample& port, Exposition& out) {
    if (!port.targets) return;
    std::array<uint64_t, kTargetStates.size() + 1> counts{};  // the last: states without a word
    for (const TargetSample& target : *port.targets)
        ++counts[std::min<std::size_t>(target.info.PortState, kTargetStates.size())];
    for (std::size_t i = 0; i < counts.size(); ++i) {
        const std::string_view word = i < kTargetStates.size() ? kTargetStates[i].word : "other";
        out.add(Labels(port.labels).add("state", word).text(), counts[i]);
    }
}

constexpr uint64_t kBytesPerGigabit = 1'000'000'000 / 8;

// In bytes per second. Nothing if no bit is a known speed.
void emit_speed(const PortSample& port, Exposition& out, uint64_t bits) {
    if (const unsigned gigabits = fastest_gigabits(bits); gigabits > 0)
        out.add(port.labels, gigabits * kBytesPerGigabit);
}

void emit_nonzero(std::string_view labels, Exposition& out, uint64_t value) {
    if (value != 0) out.add(labels, value);
}

std::string_view physical_labels(const AdapterSample& adapter) { return adapter.ports.front().labels; }

std::string port_id(uint32_t id) { return id == 0 ? "" : fmt::format("0x{:06x}", id); }

// The address, or an empty text if it is all zeros: the driver did not report it.
template <std::size_t Width>
std::string told_address(const uint8_t (&field)[Width]) {
    for (const uint8_t byte : field) {
        if (byte != 0) return address(field);
    }
    return {};
}

// ---- Infos

void emit_build(const HostSample&, Exposition& out) {
    out.add_info(
        Labels().add("version", TRELMCTL_VERSION).add("library_version", escaped(trelm::Library::version())));
}

void emit_port_info(const PortSample& port, Exposition& out) {
    if (!port.info) return;
    const TRELM_VNPORT_INFO& info = *port.info;
    out.add_info(
        Labels(port.labels)
            .add("type", port.is_virtual ? "virtual" : "physical")
            .add("hba", field_text(info.HbaName))
            .add("wwpn", address(info.WWPN))
            .add("wwnn", address(info.WWNN))
            .add("parent_wwpn", port.is_virtual ? address(info.ParentWWPN) : "")
            .add("port_id", port_id(info.PortFCID))
            .add("supported_speeds", info.PortSupportedSpeed ? speed_words(info.PortSupportedSpeed) : ""));
}

void emit_fabric_info(const PortSample& port, Exposition& out) {
    if (!port.info) return;
    const TRELM_VNPORT_INFO& info = *port.info;
    Labels labels(port.labels);
    labels.add("fabric_name", told_address(info.FabricName))
        .add("vlan", info.FabricVlan ? fmt::to_string(number(info.FabricVlan)) : "")
        .add("fc_map", info.FCMap ? fmt::format("0x{:06x}", number(info.FCMap)) : "");
    if (labels.text() != port.labels) out.add_info(labels);
}

void emit_fcf_info(const PortSample& port, Exposition& out) {
    if (!port.info || port.info->FcfCount == 0) return;
    const TRELM_VNPORT_INFO& info = *port.info;
    out.add_info(Labels(port.labels)
                     .add("switch_name", told_address(info.SwitchName))
                     .add("mac", told_address(info.FcfMAC))
                     .add("priority", fmt::to_string(number(info.FabricPriority))));
}

void emit_adapter_info(const AdapterSample& adapter, Exposition& out) {
    if (!adapter.info) return;
    const TRELM_FCOE_INFO& info = *adapter.info;
    out.add_info(Labels(physical_labels(adapter))
                     .add("model", field_text(info.ModelName))
                     .add("description", field_text(info.ModelDesc))
                     .add("mac", told_address(info.MAC))
                     .add("pci_address", pci_address(info))
                     .add("vendor_id", fmt::format("0x{:04x}", number(info.VendorID)))
                     .add("device_id", fmt::format("0x{:04x}", number(info.DeviceID)))
                     .add("port_number", fmt::to_string(number(info.PhyPortNum)))
                     .add("chip_revision", info.ChipRevId ? fmt::to_string(number(info.ChipRevId)) : ""));
}

void emit_driver_info(const AdapterSample& adapter, Exposition& out) {
    if (!adapter.info) return;
    out.add_info(Labels(physical_labels(adapter))
                     .add("name", field_text(adapter.info->DriverName))
                     .add("version", field_text(adapter.info->DriverVersion))
                     .add("date", field_text(adapter.info->DriverDate)));
}

void emit_firmware_info(const AdapterSample& adapter, Exposition& out) {
    if (!adapter.info) return;
    out.add_info(Labels(physical_labels(adapter))
                     .add("version", field_text(adapter.info->FWVersion))
                     .add("management_version", field_text(adapter.info->MFWVersion)));
}

void emit_target_info(const TargetSample& target, Exposition& out) {
    const auto& id = target.info.PortID;
    out.add_info(Labels(target.labels)
                     .add("wwpn", address(target.info.WWPN))
                     .add("wwnn", address(target.info.WWNN))
                     .add("port_id", port_id(uint32_t{id[1]} << 16 | uint32_t{id[2]} << 8 | id[3])));
}

void emit_lun_info(const LunSample& lun, Exposition& out) {
    if (!lun.answers()) return;
    out.add_info(Labels(lun.labels)
                     .add("name", lun.listed.name)
                     .add("type", type_text(lun.listed))
                     .add("vendor", lun.listed.vendor)
                     .add("product", lun.listed.product)
                     .add("revision", lun.listed.revision));
}

void emit_luns(const PortSample& port, Exposition& out) {
    if (!port.targets) return;
    uint64_t luns = 0;
    for (const TargetSample& target : *port.targets) {
        if (!target.luns) return;
        luns += *target.luns;
    }
    out.add(port.labels, luns);
}

// ---- The table

// The labels are those that the documentation lists, including the labels of the port, target or LUN.
constexpr Metric row(std::string_view name, MetricType type, std::string_view unit, std::string_view labels,
                     std::string_view help, Emit emit) {
    return {{name, type, unit, help}, labels, emit};
}

const auto& table() {
    using enum MetricType;
    static const std::array rows{
        row("trelm_build", info, "", "version, library_version", "Versions of this tool and of the library.",
            EmitFor<HostSample>(emit_build)),
        row("trelm_library_loaded", gauge, "", "", "Whether the library could be loaded.",
            [](const HostSample& host, Exposition& out) { out.add({}, host.loaded); }),
        row("trelm_physical_ports", gauge, "", "", "Physical FCoE ports of the host.",
            [](const HostSample& host, Exposition& out) {
                if (host.loaded) out.add({}, uint64_t{host.adapters.size()});
            }),
        row("trelm_host_scrape_duration_seconds", gauge, "seconds", "",
            "Time that the sampling of the whole host took.",
            [](const HostSample& host, Exposition& out) { out.add({}, host.took.count()); }),

        row("trelm_scrape_success", gauge, "", "port",
            "Whether the port's state, counters and targets could all be read.",
            [](const PortSample& port, Exposition& out) { out.add(port.labels, port.complete()); }),
        row("trelm_scrape_late", gauge, "", "port",
            "Whether the adapter had not answered when the deadline passed; the port has no other metrics "
            "then.",
            [](const PortSample& port, Exposition& out) { out.add(port.labels, port.late); }),
        row("trelm_scrape_duration_seconds", gauge, "seconds", "port",
            "Time that sampling the port took, or has taken so far if it is late.",
            [](const PortSample& port, Exposition& out) { out.add(port.labels, port.took.count()); }),

        row("trelm_port", info, "", "port, type, hba, wwpn, wwnn, parent_wwpn, port_id, supported_speeds",
            "Names and addresses of the port.", EmitFor<PortSample>(emit_port_info)),
        row("trelm_port_state", state_set, "", "port, trelm_port_state", "State of the port.",
            EmitFor<PortSample>(emit_port_state)),
        row("trelm_port_speed_bytes_per_second", gauge, "bytes_per_second", "port",
            "Current speed of the link.",
            [](const PortSample& port, Exposition& out) {
                if (port.info) emit_speed(port, out, port.info->PortSpeed);
            }),
        row("trelm_port_highest_speed_bytes_per_second", gauge, "bytes_per_second", "port",
            "Highest speed that the port supports.",
            [](const PortSample& port, Exposition& out) {
                if (port.info) emit_speed(port, out, port.info->PortSupportedSpeed);
            }),
        row("trelm_fabric", info, "", "port, fabric_name, vlan, fc_map", "Fabric and FCoE VLAN of the port.",
            EmitFor<PortSample>(emit_fabric_info)),
        row("trelm_fcf", info, "", "port, switch_name, mac, priority",
            "FCF that the port logged in through; absent without one.", EmitFor<PortSample>(emit_fcf_info)),
        row("trelm_port_fcfs", gauge, "", "port", "FCFs that the port knew when the library was last loaded.",
            [](const PortSample& port, Exposition& out) {
                if (port.info) out.add(port.labels, uint64_t{port.info->FcfCount});
            }),
        row("trelm_port_targets", gauge, "", "port", "SCSI targets that the driver announces.",
            [](const PortSample& port, Exposition& out) {
                if (port.info) out.add(port.labels, uint64_t{port.info->TgtCount});
            }),
        row("trelm_port_targets_by_state", gauge, "", "port, state",
            "Targets that answer, by state. Every state has a sample; it is 0 if no target is in that state.",
            EmitFor<PortSample>(emit_target_states)),
        row("trelm_port_luns", gauge, "", "port",
            "LUNs of all targets; absent where a target did not report its own.",
            EmitFor<PortSample>(emit_luns)),

        row("trelm_adapter", info, "",
            "port, model, description, mac, pci_address, vendor_id, device_id, port_number, chip_revision",
            "Adapter of a physical port.", EmitFor<AdapterSample>(emit_adapter_info)),
        row("trelm_driver", info, "", "port, name, version, date", "Driver that serves the port.",
            EmitFor<AdapterSample>(emit_driver_info)),
        row("trelm_firmware", info, "", "port, version, management_version", "Firmware of the adapter.",
            EmitFor<AdapterSample>(emit_firmware_info)),
        row("trelm_port_virtual_ports", gauge, "", "port", "Virtual ports on a physical port.",
            [](const AdapterSample& adapter, Exposition& out) {
                if (adapter.info) out.add(physical_labels(adapter), uint64_t{adapter.info->NpivCount});
            }),
        row("trelm_port_mtu_bytes", gauge, "bytes", "port", "MTU of a physical port.",
            [](const AdapterSample& adapter, Exposition& out) {
                if (adapter.info) emit_nonzero(physical_labels(adapter), out, adapter.info->MTU);
            }),
        row("trelm_pcie_lanes", gauge, "", "port", "Lanes of the adapter's PCI Express link.",
            [](const AdapterSample& adapter, Exposition& out) {
                if (adapter.info)
                    emit_nonzero(physical_labels(adapter), out, pcie_lanes(adapter.info->PCIEWidth));
            }),
        row("trelm_pcie_transfers_per_second", gauge, "transfers_per_second", "port",
            "Rate of a lane of the adapter's PCI Express link.",
            [](const AdapterSample& adapter, Exposition& out) {
                if (adapter.info)
                    emit_nonzero(physical_labels(adapter), out,
                                 uint64_t{adapter.info->PCIESpeed} * 100'000'000);
            }),

        counted("trelm_rx_frames", "frames", "FCoE frames received.", TRELM_COUNTER(RxFCoEFrames)),
        counted("trelm_rx_bytes", "bytes", "Bytes of FCoE frames received.", TRELM_COUNTER(RxFCoEBytes)),
        counted("trelm_rx_fcp_frames", "frames", "FCP frames received.", TRELM_COUNTER(RxFCPFrames)),
        counted("trelm_tx_frames", "frames", "FCoE frames sent.", TRELM_COUNTER(TxFCoEFrames)),
        counted("trelm_tx_bytes", "bytes", "Bytes of FCoE frames sent.", TRELM_COUNTER(TxFCoEBytes)),
        counted("trelm_tx_fcp_frames", "frames", "FCP frames sent.", TRELM_COUNTER(TxFCPFrames)),
        counted("trelm_read_requests", "requests", "Read requests.", TRELM_COUNTER(ReadRequests)),
        counted("trelm_write_requests", "requests", "Write requests.", TRELM_COUNTER(WriteRequests)),
        counted("trelm_control_requests", "requests", "Control requests.", TRELM_COUNTER(ControlRequests)),
        counted("trelm_read_bytes", "bytes",
                "Data read, counted by the driver in megabytes of 1,000,000 bytes.",
                TRELM_COUNTER_OF(ReadMegabytes, kMegabyte)),
        counted("trelm_written_bytes", "bytes",
                "Data written, counted by the driver in megabytes of 1,000,000 bytes.",
                TRELM_COUNTER_OF(WriteMegabytes, kMegabyte)),
        counted("trelm_dumped_frames", "frames", "FCoE frames dropped.", TRELM_COUNTER(FCoEDropedFrames)),
        counted("trelm_dropped_sequences", "sequences", "Sequences dropped.",
                TRELM_COUNTER(SequencesDropped)),
        counted("trelm_invalid_crc", "", "Frames with FC CRC errors.", TRELM_COUNTER(FCCRCErrorFrames)),
        counted("trelm_wrong_fcoe_version_frames", "frames", "Frames of a wrong FCoE version.",
                TRELM_COUNTER(WrongFCoEVersionFrames)),
        counted("trelm_eofa_frames", "frames", "Frames that ended with EOFa.", TRELM_COUNTER(EOFAFrames)),
        counted("trelm_missing_frames", "frames", "Missing frames.", TRELM_COUNTER(MissingFrames)),
        counted("trelm_sequence_timeouts", "", "Sequences that timed out.", TRELM_COUNTER(SequenceTimeouts)),
        counted("trelm_link_failure", "", "Failures of the link.", TRELM_COUNTER(LinkFailures)),
        counted("trelm_fip_vlan_negotiations", "", "FIP VLAN negotiations.",
                TRELM_COUNTER(FIPVlanNegotiations)),
        counted("trelm_fip_fabric_discoveries", "", "FIP fabric discoveries.",
                TRELM_COUNTER(FIPFabricDiscoveries)),
        counted("trelm_flogi", "", "Fabric logins (FLOGI).", TRELM_COUNTER(FLOGICount)),
        counted("trelm_fdisc", "", "Fabric logins of virtual ports (FDISC).", TRELM_COUNTER(FDISCCount)),
        counted("trelm_ulp_tov_expirations", "", "Expirations of ULP_TOV.", TRELM_COUNTER(ULPTOVExpirations)),
        counted("trelm_rec_expirations", "", "Expirations of REC.", TRELM_COUNTER(RECExpirations)),
        counted("trelm_fcp_packet_aborts", "", "Sequences aborted (ABTS).", TRELM_COUNTER(ABTSCount)),
        counted("trelm_srr", "", "Sequence retransmission requests (SRR).", TRELM_COUNTER(SRRCount)),
        counted("trelm_lun_resets", "", "LUN resets.", TRELM_COUNTER(ResetLUNCount)),
        counted("trelm_target_resets", "", "Target resets.", TRELM_COUNTER(ResetTargetCount)),
        counted("trelm_session_level_recoveries", "", "Session-level recoveries.",
                TRELM_COUNTER(SessionLevelRecoveryCount)),

        row("trelm_target", info, "", "port, target, wwpn, wwnn, port_id", "Names and address of a target.",
            EmitFor<TargetSample>(emit_target_info)),
        row("trelm_target_online", gauge, "", "port, target",
            "Whether the target is online. Targets that the driver reports as offline are not listed.",
            [](const TargetSample& target, Exposition& out) {
                out.add(target.labels, target.info.PortState == kTargetOnline);
            }),
        row("trelm_target_luns", gauge, "", "port, target", "LUNs that the target reports.",
            [](const TargetSample& target, Exposition& out) {
                if (target.luns) out.add(target.labels, uint64_t{*target.luns});
            }),

        row("trelm_lun", info, "", "port, target, lun, name, type, vendor, product, revision",
            "Name, type and product of a LUN. Only with --luns.", EmitFor<LunSample>(emit_lun_info)),
        row("trelm_lun_online", gauge, "", "port, target, lun", "Whether the LUN answers. Only with --luns.",
            [](const LunSample& lun, Exposition& out) { out.add(lun.labels, lun.answers()); }),
        row("trelm_lun_capacity_bytes", gauge, "bytes", "port, target, lun", "Capacity. Only with --luns.",
            [](const LunSample& lun, Exposition& out) {
                emit_nonzero(lun.labels, out, lun.listed.capacity);
            }),
    };
    return rows;
}

// Writes one metric for everything of its kind.
struct Emitter {
    const HostSample& host;
    Exposition& out;

    void operator()(EmitFor<HostSample> emit) const { emit(host, out); }
    void operator()(EmitFor<AdapterSample> emit) const {
        for (const AdapterSample& adapter : host.adapters) emit(adapter, out);
    }
    void operator()(EmitFor<PortSample> emit) const {
        for (const AdapterSample& adapter : host.adapters) {
            for (const PortSample& port : adapter.ports) emit(port, out);
        }
    }
    void operator()(EmitFor<TargetSample> emit) const {
        each_target([&](const TargetSample& target) { emit(target, out); });
    }
    void operator()(EmitFor<LunSample> emit) const {
        each_target([&](const TargetSample& target) {
            for (const LunSample& lun : target.lun_list) emit(lun, out);
        });
    }

  private:
    template <typename Visit>
    void each_target(const Visit& visit) const {
        for (const AdapterSample& adapter : host.adapters) {
            for (const PortSample& port : adapter.ports) {
                if (!port.targets) continue;
                for (const TargetSample& target : *port.targets) visit(target);
            }
        }
    }
};

#undef TRELM_COUNTER
#undef TRELM_COUNTER_OF

}  // namespace

std::span<const Metric> catalogue() { return table(); }

std::string render(const HostSample& host, Format format) {
    Exposition out(format);
    for (const Metric& metric : catalogue()) {
        out.begin(metric.family);
        std::visit(Emitter{host, out}, metric.emit);
    }
    return out.finish();
}

std::string describe() {
    std::string text = "| metric | type | unit | labels | meaning |\n|---|---|---|---|---|\n";
    for (const auto& [family, labels, emit] : catalogue()) {
        text += fmt::format("| `{}` | {} | {} | {} | {} |\n", family.sample_name(), type_name(family.type),
                            family.unit, labels, family.help);
    }
    return text;
}

}  // namespace trelmctl::metrics
