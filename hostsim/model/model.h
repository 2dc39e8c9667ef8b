// model.h - a simulated host as plain data. Host files describe it and tests edit it. The drivers answer each
// request from it, so that an edit shows with the next request.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "hostsim_api.h"
#include "values.h"

namespace hostsim {

enum class DriverKind : uint8_t { kron, pyx, legacy };
inline constexpr size_t kDriverKinds = 3;
inline constexpr std::array<std::string_view, kDriverKinds> kDriverKindNames{"kron", "pyx", "legacy"};

// A driver of the host. `automatic`: present if an adapter of its kind exists.
struct Driver {
    enum class Presence : uint8_t { automatic, present, absent, no_device };

    Presence presence = Presence::automatic;  // no_device: legacy only, its node is a regular file
    std::string name{};
    std::string version{};
    std::string date{};
    bool loaded = true;
    std::vector<std::string> order{};               // ports by name or WWPN; the others follow
    std::optional<uint32_t> reported_port_count{};  // instead of the number of ports
};

// The counters of a port, in the order of the driver's record.
inline constexpr size_t kCounters = 30;
inline constexpr std::array<std::string_view, kCounters> kCounterNames{
    "rx_fcoe_frames",
    "rx_fcoe_bytes",
    "rx_fcp_frames",
    "tx_fcoe_frames",
    "tx_fcoe_bytes",
    "tx_fcp_frames",
    "fcoe_dropped_frames",
    "seq_dropped",
    "fc_crc_err_frames",
    "wrong_fcoe_ver_frames",
    "eofa_frames",
    "missing_frames",
    "seq_timeouts",
    "read_req",
    "write_req",
    "ctrl_req",
    "read_megabytes",
    "write_megabytes",
    "fip_vlan_negotiations",
    "fip_fabric_discoveries",
    "flogi_cnt",
    "fdisc_cnt",
    "ulp_tov_expirations",
    "rec_expirations",
    "abts_cnt",
    "srr_cnt",
    "reset_lun_cnt",
    "reset_tgt_cnt",
    "sess_level_recovery_cnt",
    "link_failures",
};

struct Counter {
    uint64_t start = 0;  // value when the host started
    double rate = 0;     // growth per second
};

struct Fcf {
    uint64_t switch_name = 0;
    uint64_t fabric_name = 0;
    uint32_t fc_map = 0x0EFC00;
    uint16_t vfid = 0;
    MacAddress fcf_mac{};
    MacAddress fcoe_mac{};
    bool flogi_sent = true;
    uint8_t priority = 128;
    uint16_t flags = 0;
    uint32_t keep_alive_timeout = 8000;  // milliseconds
    bool selected = true;
};

struct Lun {
    enum class Addressing : uint8_t { automatic, peripheral, flat };  // automatic: flat from 256 on
    enum class Backing : uint8_t { memory, file };

    uint32_t number = 0;  // up to 16383, with peripheral addressing up to 255
    uint32_t count = 1;   // number of such LUNs, numbered consecutively
    Addressing addressing = Addressing::automatic;
    uint64_t block_count = 0;
    uint32_t block_size = 512;
    uint8_t device_type = 0;
    std::string vendor = "CALVEXA";
    std::string product = "ULVARD VOLUME";
    std::string revision = "0500";
    std::string serial;  // empty: made from the target's WWPN and the number
    uint64_t naa = 0;    // 0: made from the same. LUNs with one NAA id are one disk with several paths
    Backing backing = Backing::memory;
    std::string directory;  // of a file-backed LUN; empty: below the running host's root
    bool not_ready = false;
    bool reserved = false;
    bool unit_attention = false;  // reported once, to the first command that reports it
};

inline constexpr uint32_t kMaxTargets = 128;

struct Target {
    uint32_t index = 0;  // below 128, gaps allowed
    uint32_t bus = 0;
    uint64_t wwnn = 0;
    uint64_t wwpn = 0;
    uint32_t port_id = 0;
    uint16_t state = 2;    // an FC port state: 2 online
    bool offline = false;  // the driver answers 'device offline' for it
    std::vector<Lun> luns;
};

// The common fields of physical and virtual ports. A WWN of 0 is not given; PortRef then has one derived from
// the place of the port.
struct Port {
    std::string name;  // used by faults and by the order of ports
    uint64_t wwnn = 0;
    uint64_t wwpn = 0;
    MacAddress mac{};
    uint32_t port_id = 0;
    std::optional<uint16_t> port_type;  // default: 3 (N_Port), of a virtual port 7
    uint32_t link_state = 2;            // an FC port state: 2 online, 3 offline, 7 link down
    uint16_t supported_speed =
        4;  // bits: 1 = 1 Gbit/s, 2 = 2, 4 = 10, 8 = 4, 0x10 = 8, 0x20 = 16, 0x100 = 40
    uint16_t speed = 4;
    uint32_t mtu = 2500;
    uint32_t vlan = 0;
    std::optional<uint32_t> npiv_index;  // default: 0, of virtual ports 1, 2, ...
    std::optional<uint32_t> host_no;     // default: the lowest free one, in the order of the ports
    std::string hba_name;                // default: "vmhba" and the host number
    std::vector<Fcf> fcfs;
    std::vector<Target> targets;
    std::array<Counter, kCounters> counters{};
    std::optional<uint32_t> reported_target_count;  // in place of the number of targets that are not offline
    std::optional<uint32_t> reported_fcf_count;
};

struct PhysicalPort : Port {
    uint16_t pci_function = 0;
    std::optional<uint16_t> port_number;          // default: its position on the adapter, from 1
    std::optional<uint32_t> reported_npiv_count;  // in place of the number of its virtual ports
    std::vector<Port> virtual_ports;
};

struct Adapter {
    DriverKind driver = DriverKind::kron;
    std::string manufacturer = "Calvexa";
    std::string model = "Ulvard 8042";
    std::string description;  // default: made from manufacturer and model
    std::string serial_number;
    std::string firmware_version;
    uint32_t management_firmware = 0;  // one byte each: major, minor, revision, build
    uint16_t vendor_id = 0;
    uint16_t device_id = 0;
    uint16_t subsystem_vendor_id = 0;
    uint16_t subsystem_id = 0;
    uint16_t pci_domain = 0;
    uint16_t pci_bus = 0;
    uint16_t pci_device = 0;
    uint16_t revision = 0;
    uint32_t pcie_speed = 22;  // 20 = 2.5 GT/s, 21 = 5, 22 = 8
    uint32_t pcie_width = 8;   // lanes
    uint32_t chip_revision = 0;
    std::vector<PhysicalPort> ports;
};

// The operations of a driver, with the names of host files.
enum class Operation : uint8_t {
    init,
    open,
    close,
    hba_count,
    hostno,
    pci_info,
    port_info,
    port_stats,
    tgt_info,
    fcf_info,
    scsi,
};
inline constexpr std::array<std::string_view, 11> kOperationNames{
    "init",      "open",       "close",    "hba_count", "hostno", "pci_info",
    "port_info", "port_stats", "tgt_info", "fcf_info",  "scsi",
};

// Makes requests fail: among the requests that match the given fields, `count` from the `occurrence`-th on.
struct Fault {
    static constexpr uint64_t kAlways = UINT64_MAX;

    Operation operation = Operation::port_info;
    std::optional<DriverKind> driver{};
    std::string port{};                // name or WWPN; empty: every port
    std::optional<uint32_t> target{};  // of tgt_info and scsi
    std::optional<uint8_t> opcode{};   // of scsi
    uint64_t occurrence = 1;
    uint64_t count = 1;
    uint32_t status = 0;  // reported by the driver
    int error = 0;        // errno of a call that fails
};

struct Model {
    std::string name = "simulated-host";
    std::string system_name = "VMkernel";
    std::string release = "6.5.0";
    std::string version = "#1 SMP Release build-4564106";
    std::string machine = "x86_64";
    uint32_t effective_user = 0;
    std::array<Driver, kDriverKinds> drivers{
        Driver{.name = "kronfc", .version = "1.0.24.0", .date = "Mar 12 2019"},
        Driver{.name = "ostfc", .version = "1.0.12.0", .date = "Feb 20 2019"},
        Driver{.name = "dorfc", .version = "1.1.32.0", .date = "Nov 30 2016"},
    };
    std::vector<Adapter> adapters;
    std::vector<Fault> faults;

    Driver& driver(DriverKind kind) { return drivers[static_cast<size_t>(kind)]; }
    const Driver& driver(DriverKind kind) const { return drivers[static_cast<size_t>(kind)]; }
    PhysicalPort& port(size_t adapter, size_t number) { return adapters.at(adapter).ports.at(number); }
};

// A mistake in a model, or a warning about what no real host would have.
struct ModelProblem {
    enum class Severity : uint8_t { warning, error };

    Severity severity;
    std::string pointer;  // a JSON pointer into the host file
    std::string reason;   // what is wrong and what is allowed
};

// The problems of a model in the order of its host file, up to `limit`.
HOSTSIM_API std::vector<ModelProblem> find_problems(const Model& model, size_t limit);

// Whether a driver is present: its management interface, or its node as a character device.
HOSTSIM_API bool is_present(const Model& model, DriverKind kind);

// One port as its driver enumerates it. Valid until the model is edited.
struct PortRef {
    const Adapter* adapter;
    const PhysicalPort* physical;
    const Port* port;
    bool is_virtual;
    size_t adapter_index;
    size_t port_index;     // of the physical port on its adapter
    size_t virtual_index;  // of a virtual port on its physical port
    uint32_t host_no;
    uint64_t wwnn;
    uint64_t wwpn;
};

// Every port of the host with its host number, in the model's order.
HOSTSIM_API std::vector<PortRef> all_ports(const Model& model);

// The ports of one driver in the order in which it enumerates them: index = driver instance.
HOSTSIM_API std::vector<PortRef> driver_ports(const Model& model, DriverKind kind);

// Whether `text` names this port, by its name or by its WWPN.
HOSTSIM_API bool is_named(const PortRef& ref, std::string_view text);

}  // namespace hostsim
