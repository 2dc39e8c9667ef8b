// driver_answers.cpp - the records of the three drivers are alike but for a few fields. One function fills
// each; those for port information and SCSI commands are templates of two layouts.
#include "driver_answers.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <string_view>

#include "scsi_exchange.h"
#include "state.h"
#include "trelm_driver_records.h"
#include "values.h"

namespace hostsim {
namespace {

// Copies a text into a field of fixed width, zero-padded; what does not fit is cut.
template <size_t Width>
void put_text(char (&field)[Width], std::string_view text) {
    std::memset(field, 0, Width);
    std::memcpy(field, text.data(), std::min(text.size(), Width));
}

// The payload as the record that it is; requests come with a payload of the operation's size.
template <typename Record>
Record& record(const PortRequest& request) {
    return *reinterpret_cast<Record*>(request.payload.data());
}

uint32_t npiv_index(const PortRef& ref) {
    return ref.port->npiv_index.value_or(ref.is_virtual ? static_cast<uint32_t>(ref.virtual_index + 1) : 0);
}

uint32_t online_targets(const Port& port) {
    const auto online = [](const Target& target) { return !target.offline; };
    return static_cast<uint32_t>(std::count_if(port.targets.begin(), port.targets.end(), online));
}

// A MAC address for a port without one: from the WWPN, or for a virtual port from FC-MAP and port id, as
// fabrics assign them.
MacAddress mac_of(const PortRef& ref) {
    if (ref.port->mac != MacAddress{}) return ref.port->mac;
    const uint64_t low =
        ref.is_virtual ? uint64_t{0x0EFC00} << 24 | (ref.port->port_id & 0xFFFFFF) : ref.wwpn;
    MacAddress mac{};
    for (size_t i = 0; i < mac.size(); ++i) mac[i] = static_cast<uint8_t>(low >> (40 - 8 * i));
    return mac;
}

const Target* find_target(const Port& port, uint32_t index) {
    const auto found = std::find_if(port.targets.begin(), port.targets.end(),
                                    [&](const Target& target) { return target.index == index; });
    return found == port.targets.end() || found->offline ? nullptr : &*found;
}

// ---- Counters

struct CounterField {
    std::string_view name;
    size_t offset;
};
#define COUNTER(name) \
    CounterField { #name, offsetof(dorfc_port_stats, name) }
constexpr std::array kCounterFields{
    COUNTER(rx_fcoe_frames),
    COUNTER(rx_fcoe_bytes),
    COUNTER(rx_fcp_frames),
    COUNTER(tx_fcoe_frames),
    COUNTER(tx_fcoe_bytes),
    COUNTER(tx_fcp_frames),
    COUNTER(fcoe_dropped_frames),
    COUNTER(seq_dropped),
    COUNTER(fc_crc_err_frames),
    COUNTER(wrong_fcoe_ver_frames),
    COUNTER(eofa_frames),
    COUNTER(missing_frames),
    COUNTER(seq_timeouts),
    COUNTER(read_req),
    COUNTER(write_req),
    COUNTER(ctrl_req),
    COUNTER(read_megabytes),
    COUNTER(write_megabytes),
    COUNTER(fip_vlan_negotiations),
    COUNTER(fip_fabric_discoveries),
    COUNTER(flogi_cnt),
    COUNTER(fdisc_cnt),
    COUNTER(ulp_tov_expirations),
    COUNTER(rec_expirations),
    COUNTER(abts_cnt),
    COUNTER(srr_cnt),
    COUNTER(reset_lun_cnt),
    COUNTER(reset_tgt_cnt),
    COUNTER(sess_level_recovery_cnt),
    COUNTER(link_failures),
};
#undef COUNTER

constexpr bool has_the_models_order() {
    if (kCounterFields.size() != kCounters) return false;
    for (size_t i = 0; i < kCounters; ++i) {
        if (kCounterFields[i].name != kCounterNames[i]) return false;
    }
    return true;
}
static_assert(has_the_models_order());

// The largest double that fits a counter.
constexpr double kLargestGrowth = 18446744073709549568.0;

// ---- LUNs

// An NAA id for a LUN without one: from the WWPN of the target and the number of the LUN, unique on the host.
uint64_t naa_of(const Lun& lun, uint32_t number, const PortRef& port, const Target& target) {
    if (lun.naa) return lun.naa;
    const uint64_t owner = target.wwpn ? target.wwpn : port.wwpn << 8 | target.index;
    return uint64_t{0x3} << 60 | (owner & 0x0000'0FFF'FFFF'FFFF) << 16 | number;
}

DiskConfig disk_config(const Lun& lun, uint64_t naa) {
    DiskConfig config;
    config.vendor = lun.vendor;
    config.product = lun.product;
    config.revision = lun.revision;
    config.serial = lun.serial.empty() ? fmt::format("{:016X}", naa) : lun.serial;
    config.naa = naa;
    config.device_type = lun.device_type;
    config.block_count = lun.block_count;
    config.block_size = lun.block_size;
    config.reserved = lun.reserved;
    if (lun.not_ready) config.condition = sense::kNeedsIntervention;
    return config;
}

std::string attention_counter(uint64_t naa) { return fmt::format("unit-attention:{:016x}", naa); }

constexpr uint8_t kInquiry = 0x12;
constexpr uint8_t kReportLuns = 0xA0;

// Commands that neither report a unit attention nor clear it.
bool leaves_attention(uint8_t opcode) { return opcode == kInquiry || opcode == kReportLuns; }

LunAddressing addressing_of(const Lun& lun, uint32_t number) {
    const bool flat = lun.addressing == Lun::Addressing::flat ||
                      (lun.addressing == Lun::Addressing::automatic && number > 255);
    return flat ? LunAddressing::flat : LunAddressing::peripheral;
}

// The logical units that a command concerns: all for REPORT LUNS, otherwise the addressed one. A target may
// have thousands, and each is built for each command.
template <typename Make>
std::vector<ScsiLun> concerned_luns(const Target& target, bool all, std::optional<uint16_t> addressed,
                                    const Make& make) {
    std::vector<ScsiLun> luns;
    for (const Lun& lun : target.luns) {
        for (uint32_t number = lun.number; number < lun.number + lun.count; ++number) {
            if (all || addressed == number) luns.push_back(make(lun, number));
        }
    }
    return luns;
}

}  // namespace

std::shared_ptr<BlockStore> LunStores::open(const Lun& lun, uint64_t naa) {
    const std::string id = fmt::format("{:016x}", naa);
    auto& store = stores_[fmt::format("{}:{}:{}", id, lun.block_size, lun.directory)];
    if (!store) store = make(lun, id);
    return store;
}

std::shared_ptr<BlockStore> LunStores::make(const Lun& lun, const std::string& id) const {
    const std::string& shared = lun.backing == Lun::Backing::file ? file_ : memory_;
    const std::string& parent = lun.directory.empty() ? shared : lun.directory;
    if (parent.empty()) return memory_store(lun.block_size);
    return directory_store(parent + "/" + id, lun.block_size);
}

uint32_t DriverAnswers::run(const PortRequest& request) {
    switch (request.operation) {
        case Operation::hba_count:
            return hba_count(request);
        case Operation::hostno:
            return hostno(request);
        case Operation::pci_info:
            return pci_info(request);
        case Operation::port_info:
            return port_info(request);
        case Operation::port_stats:
            return port_stats(request);
        case Operation::tgt_info:
            return tgt_info(request);
        case Operation::fcf_info:
            return fcf_info(request);
        case Operation::scsi:
            return scsi(request);
        case Operation::init:
        case Operation::open:
        case Operation::close:
            break;
    }
    return DRIVER_STATUS_INVALID;
}

uint32_t DriverAnswers::hba_count(const PortRequest& request) {
    const auto reported = model_.driver(request.driver).reported_port_count;
    record<uint32_t>(request) =
        reported ? *reported : static_cast<uint32_t>(driver_ports(model_, request.driver).size());
    return DRIVER_STATUS_GOOD;
}

uint32_t DriverAnswers::hostno(const PortRequest& request) {
    record<uint32_t>(request) = request.port->host_no;
    return DRIVER_STATUS_GOOD;
}

uint32_t DriverAnswers::pci_info(const PortRequest& request) {
    const Adapter& adapter = *request.port->adapter;
    const PhysicalPort& physical = *request.port->physical;
    const auto position = static_cast<uint16_t>(request.port->port_index + 1);
    record<dorfc_pci_info>(request) = dorfc_pci_info{
        .vendor_id = adapter.vendor_id,
        .device_id = adapter.device_id,
        .subvendor_id = adapter.subsystem_vendor_id,
        .subsystem_id = adapter.subsystem_id,
        .domain_num = adapter.pci_domain,
        .bus_num = adapter.pci_bus,
        .device_num = adapter.pci_device,
        .function_num = physical.pci_function,
        .revision = adapter.revision,
        .port_num = physical.port_number.value_or(position),
        .pcie_speed = adapter.pcie_speed,
        .pcie_width = adapter.pcie_width,
        .chip_rev_id = request.driver == DriverKind::legacy ? 0 : adapter.chip_revision,
        .reserved = {},
    };
    return DRIVER_STATUS_GOOD;
}

template <typename Record>
void DriverAnswers::fill_port_info(const PortRef& ref, Record& info) const {
    const Adapter& adapter = *ref.adapter;
    const Port& port = *ref.port;
    const Driver& driver = model_.driver(adapter.driver);
    const auto virtual_ports = static_cast<uint32_t>(ref.physical->virtual_ports.size());
    const MacAddress mac = mac_of(ref);
    info = Record{};
    put_text(info.manufacturer, adapter.manufacturer);
    put_text(info.model_name, adapter.model);
    put_text(info.model_desc,
             adapter.description.empty() ? adapter.manufacturer + " " + adapter.model : adapter.description);
    put_text(info.serial_num, adapter.serial_number);
    put_text(info.driver_version, driver.version);
    put_text(info.driver_date, driver.date);
    put_text(info.driver_name, driver.name);
    info.driver_loaded = driver.loaded;
    put_text(info.fw_version, adapter.firmware_version);
    info.wwnn = ref.wwnn;
    info.wwpn = ref.wwpn;
    info.portid = port.port_id;
    info.port_type = port.port_type.value_or(ref.is_virtual ? FC_PORTTYPE_NPIV : FC_PORTTYPE_NPORT);
    info.link_state = port.link_state;
    info.port_sup_speed = port.supported_speed;
    info.port_speed = port.speed;
    std::copy(mac.begin(), mac.end(), info.mac);
    info.tgt_cnt = port.reported_target_count.value_or(online_targets(port));
    info.fcf_cnt = port.reported_fcf_count.value_or(static_cast<uint32_t>(port.fcfs.size()));
    info.mtu = port.mtu;
    info.vlan = port.vlan;
    info.npiv_count = ref.is_virtual ? 0 : ref.physical->reported_npiv_count.value_or(virtual_ports);
    info.npiv_index = npiv_index(ref);
    put_text(info.hba_name, port.hba_name.empty() ? fmt::format("vmhba{}", ref.host_no) : port.hba_name);
}

uint32_t DriverAnswers::port_info(const PortRequest& request) {
    if (request.driver != DriverKind::kron) {
        fill_port_info(*request.port, record<dorfc_port_info>(request));
        return DRIVER_STATUS_GOOD;
    }
    fill_port_info(*request.port, record<kronfc_port_info>(request));
    record<kronfc_port_info>(request).mfw_version = request.port->adapter->management_firmware;
    return DRIVER_STATUS_GOOD;
}

uint32_t DriverAnswers::port_stats(const PortRequest& request) {
    auto& stats = record<dorfc_port_stats>(request);
    stats = dorfc_port_stats{};
    const double seconds = std::chrono::duration<double>(state_.age()).count();
    for (size_t i = 0; i < kCounters; ++i) {
        const Counter& counter = request.port->port->counters[i];
        const double growth = std::min(counter.rate * seconds, kLargestGrowth);
        const uint64_t value = counter.start + static_cast<uint64_t>(growth);
        std::memcpy(reinterpret_cast<uint8_t*>(&stats) + kCounterFields[i].offset, &value, sizeof value);
    }
    return DRIVER_STATUS_GOOD;
}

uint32_t DriverAnswers::tgt_info(const PortRequest& request) {
    auto& info = record<dorfc_tgt_info>(request);
    const Target* const target = find_target(*request.port->port, info.scsi_tgt_num);
    if (!target) return DRIVER_STATUS_DEVICE_OFFLINE;
    info = dorfc_tgt_info{
        .scsi_bus_num = target->bus,
        .scsi_tgt_num = target->index,
        .wwnn = target->wwnn,
        .wwpn = target->wwpn,
        .portid = target->port_id,
        .port_state = target->state,
        .reserved = {},
    };
    return DRIVER_STATUS_GOOD;
}

// A request names an FCF by number. Number 0, which a zeroed request has, means the selected one.
uint32_t DriverAnswers::fcf_info(const PortRequest& request) {
    auto& info = record<dorfc_fcf_info>(request);
    const auto& fcfs = request.port->port->fcfs;
    const auto selected = std::find_if(fcfs.begin(), fcfs.end(), [](const Fcf& fcf) { return fcf.selected; });
    size_t number = info.fcf_num;
    if (number == 0 && selected != fcfs.end()) number = static_cast<size_t>(selected - fcfs.begin());
    if (number >= fcfs.size()) return DRIVER_STATUS_INVALID;
    const Fcf& fcf = fcfs[number];
    info = dorfc_fcf_info{};
    info.fcf_num = static_cast<uint32_t>(number);
    info.switch_name = fcf.switch_name;
    info.fabric_name = fcf.fabric_name;
    info.fc_map = fcf.fc_map;
    info.vfid = fcf.vfid;
    std::copy(fcf.fcf_mac.begin(), fcf.fcf_mac.end(), info.fcf_mac);
    std::copy(fcf.fcoe_mac.begin(), fcf.fcoe_mac.end(), info.fcoe_mac);
    info.flogi_sent = fcf.flogi_sent;
    info.priority = fcf.priority;
    info.flags = fcf.flags;
    info.ka_timeout = fcf.keep_alive_timeout;
    info.fcf_selected = fcf.selected;
    return DRIVER_STATUS_GOOD;
}

uint32_t DriverAnswers::scsi(const PortRequest& request) {
    if (request.driver == DriverKind::legacy) return run_scsi(*request.port, record<dorfc_scsi_cmd>(request));
    return run_scsi(*request.port, record<kronfc_scsi_cmd>(request));
}

template <typename Record>
uint32_t DriverAnswers::run_scsi(const PortRef& port, Record& command) {
    const Target* const target = find_target(*port.port, command.tgt);
    if (!target) return DRIVER_STATUS_DEVICE_OFFLINE;
    const uint8_t opcode = command.cdb[0];
    const bool reports = !leaves_attention(opcode);
    std::atomic<uint64_t>* reported = nullptr;
    const auto make = [&](const Lun& lun, uint32_t number) {
        const uint64_t naa = naa_of(lun, number, port, *target);
        DiskConfig config = disk_config(lun, naa);
        if (lun.unit_attention && reports) {
            auto& counter = state_.counter(attention_counter(naa));
            if (counter == 0) {
                config.condition = sense::kPowerOnReset;
                reported = &counter;
            }
        }
        return ScsiLun{static_cast<uint16_t>(number), addressing_of(lun, number),
                       Disk(std::move(config), stores_.open(lun, naa))};
    };
    const ScsiTarget units(
        concerned_luns(*target, opcode == kReportLuns, lun_number(command.lun, command.lun_ext), make));
    const uint32_t status = exchange_scsi(units, command);
    if (reported && status == DRIVER_STATUS_GOOD) reported->store(1);
    return status;
}

size_t payload_size(DriverKind driver, Operation operation) {
    const bool legacy = driver == DriverKind::legacy;
    switch (operation) {
        case Operation::hba_count:
        case Operation::hostno:
            return sizeof(uint32_t);
        case Operation::pci_info:
            return sizeof(dorfc_pci_info);
        case Operation::port_info:
            return sizeof(dorfc_port_info);
        case Operation::port_stats:
            return sizeof(dorfc_port_stats);
        case Operation::tgt_info:
            return sizeof(dorfc_tgt_info);
        case Operation::fcf_info:
            return sizeof(dorfc_fcf_info);
        case Operation::scsi:
            return legacy ? sizeof(dorfc_scsi_cmd) : sizeof(kronfc_scsi_cmd);
        case Operation::init:
        case Operation::open:
        case Operation::close:
            break;
    }
    return 0;
}

}  // namespace hostsim
