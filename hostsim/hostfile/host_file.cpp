// host_file.cpp - the keys of host files, as tables: one a kind of object, each key with how its value is
// read.
#include "host_file.h"

#include <fmt/format.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "errno_names.h"
#include "host_error.h"
#include "json_reader.h"
#include "values.h"

namespace hostsim {
namespace {

// ---- Values

uint64_t read_wwn(const JsonValue& value) {
    const auto wwn = parse_wwn(value.text());
    if (!wwn || *wwn == 0) {
        value.fail(value.json().dump() +
                   " is no WWN; eight bytes such as \"20:00:00:c0:5a:01:0a:01\", not all zero, are allowed");
    }
    return *wwn;
}

MacAddress read_mac(const JsonValue& value) {
    const auto mac = parse_mac(value.text());
    if (!mac)
        value.fail(value.json().dump() +
                   " is no MAC address; six bytes such as \"00:c0:5a:01:0a:01\" are allowed");
    return *mac;
}

uint32_t read_fc_address(const JsonValue& value) { return value.number<uint32_t>(0xFFFFFF); }

constexpr NamedNumber kPortStates[]{{"unknown", 0}, {"not_present", 1}, {"online", 2},      {"offline", 3},
                                    {"blocked", 4}, {"bypassed", 5},    {"diagnostics", 6}, {"link_down", 7},
                                    {"error", 8},   {"loopback", 9},    {"deleted", 10}};
constexpr NamedNumber kPortTypes[]{{"unknown", 0}, {"other", 1}, {"not_present", 2},    {"nport", 3},
                                   {"nlport", 4},  {"lport", 5}, {"point_to_point", 6}, {"npiv", 7}};
constexpr NamedNumber kSpeeds[]{
    {"unknown", 0},     {"1 Gbit", 0x1},     {"2 Gbit", 0x2},   {"10 Gbit", 0x4},  {"4 Gbit", 0x8},
    {"8 Gbit", 0x10},   {"16 Gbit", 0x20},   {"32 Gbit", 0x40}, {"20 Gbit", 0x80}, {"40 Gbit", 0x100},
    {"50 Gbit", 0x200}, {"100 Gbit", 0x400}, {"25 Gbit", 0x800}};
constexpr NamedNumber kPcieSpeeds[]{{"2.5 GT/s", 20}, {"5 GT/s", 21}, {"8 GT/s", 22}};
constexpr NamedNumber kDriverKindsByName[]{{"kron", 0}, {"pyx", 1}, {"legacy", 2}};

uint16_t read_speeds(const JsonValue& value) {
    if (!value.json().is_array()) return static_cast<uint16_t>(value.named(kSpeeds, UINT16_MAX));
    uint64_t speeds = 0;
    for (const JsonValue& element : value.elements()) speeds |= element.named(kSpeeds, UINT16_MAX);
    return static_cast<uint16_t>(speeds);
}

DriverKind read_driver_kind(const JsonValue& value) {
    return static_cast<DriverKind>(value.named(kDriverKindsByName));
}

// "08.37.30.00", one decimal number a byte, most significant first.
uint32_t read_management_firmware(const JsonValue& value) {
    std::istringstream text(value.text());
    uint32_t version = 0;
    int parts = 0;
    for (std::string part; std::getline(text, part, '.'); ++parts) {
        const auto number = part.starts_with("0x") ? std::nullopt : parse_number(part);
        if (!number || *number > 255) parts = 4;
        version = version << 8 | static_cast<uint32_t>(number.value_or(0));
    }
    if (parts != 4)
        value.fail(value.json().dump() +
                   " is no version; four numbers up to 255 such as \"08.37.30.00\" are allowed");
    return version;
}

// "0000:3b:00": domain, bus and device of an adapter, whose ports are its functions.
void read_pci_address(const JsonValue& value, Adapter& adapter) {
    const std::string text = value.text();
    unsigned domain = 0;
    unsigned bus = 0;
    unsigned device = 0;
    int length = 0;
    const int fields = std::sscanf(text.c_str(), "%4x:%2x:%2x%n", &domain, &bus, &device, &length);
    if (fields != 3 || text.size() != 10 || length != 10 || device > 31) {
        value.fail(value.json().dump() +
                   " is no PCI location; domain, bus and device such as \"0000:3b:00\" are allowed");
    }
    adapter.pci_domain = static_cast<uint16_t>(domain);
    adapter.pci_bus = static_cast<uint16_t>(bus);
    adapter.pci_device = static_cast<uint16_t>(device);
}

uint64_t read_count_or_always(const JsonValue& value) {
    constexpr NamedNumber kAlways[]{{"always", Fault::kAlways}};
    const uint64_t count = value.named(kAlways, INT64_MAX);
    if (count == 0) value.fail("a fault happens at least once; a number from 1 or \"always\" is allowed");
    return count;
}

int read_errno(const JsonValue& value) {
    if (value.json().is_string()) {
        if (const int error = errno_by_name(value.text())) return error;
        if (!parse_number(value.text())) {
            value.fail(value.json().dump() +
                       " is no error; names such as \"EIO\" and numbers from 1 to 4095 are allowed");
        }
    }
    return static_cast<int>(value.integer(1, 4095));
}

Operation read_operation(const JsonValue& value) {
    std::vector<NamedNumber> names;
    for (size_t i = 0; i < kOperationNames.size(); ++i) names.push_back({kOperationNames[i], i});
    return static_cast<Operation>(value.named(names));
}

Driver::Presence read_presence(const JsonValue& value) {
    constexpr NamedNumber kStates[]{{"present", static_cast<uint64_t>(Driver::Presence::present)},
                                    {"absent", static_cast<uint64_t>(Driver::Presence::absent)},
                                    {"no_device", static_cast<uint64_t>(Driver::Presence::no_device)}};
    return static_cast<Driver::Presence>(value.named(kStates));
}

// ---- LUNs and targets

// A LUN as written: its size is given either way, and comes together with the block size at the end.
struct WrittenLun : Lun {
    std::optional<uint64_t> capacity;
};

uint64_t read_size(const JsonValue& value) {
    const auto size =
        value.json().is_string() ? parse_size(value.text()) : std::optional(value.integer(1, UINT64_MAX));
    if (!size || *size == 0) {
        value.fail(value.json().dump() +
                   " is no size; a number of bytes above 0 or one with a unit such as \"2 TiB\" is allowed");
    }
    return *size;
}

constexpr NamedNumber kAddressing[]{{"peripheral", static_cast<uint64_t>(Lun::Addressing::peripheral)},
                                    {"flat", static_cast<uint64_t>(Lun::Addressing::flat)}};
constexpr NamedNumber kBacking[]{{"memory", static_cast<uint64_t>(Lun::Backing::memory)},
                                 {"file", static_cast<uint64_t>(Lun::Backing::file)}};

constexpr JsonField<WrittenLun> kLunFields[]{
    {"number", [](const JsonValue& v, WrittenLun& l) { l.number = v.number<uint32_t>(16383); },
     Presence::required},
    {"count",
     [](const JsonValue& v, WrittenLun& l) { l.count = static_cast<uint32_t>(v.integer(1, 16384)); }},
    {"addressing", [](const JsonValue& v,
                      WrittenLun& l) { l.addressing = static_cast<Lun::Addressing>(v.named(kAddressing)); }},
    {"capacity", [](const JsonValue& v, WrittenLun& l) { l.capacity = read_size(v); }},
    {"block_count", [](const JsonValue& v, WrittenLun& l) { l.block_count = v.integer(1, UINT64_MAX); }},
    {"block_size", [](const JsonValue& v, WrittenLun& l) { l.block_size = v.number<uint32_t>(); }},
    {"device_type", [](const JsonValue& v, WrittenLun& l) { l.device_type = v.number<uint8_t>(31); }},
    {"vendor", [](const JsonValue& v, WrittenLun& l) { l.vendor = v.text(); }},
    {"product", [](const JsonValue& v, WrittenLun& l) { l.product = v.text(); }},
    {"revision", [](const JsonValue& v, WrittenLun& l) { l.revision = v.text(); }},
    {"serial_number", [](const JsonValue& v, WrittenLun& l) { l.serial = v.text(); }},
    {"naa", [](const JsonValue& v, WrittenLun& l) { l.naa = read_wwn(v); }},
    {"backing",
     [](const JsonValue& v, WrittenLun& l) { l.backing = static_cast<Lun::Backing>(v.named(kBacking)); }},
    {"directory", [](const JsonValue& v, WrittenLun& l) { l.directory = v.text(); }},
    {"not_ready", [](const JsonValue& v, WrittenLun& l) { l.not_ready = v.boolean(); }},
    {"reserved", [](const JsonValue& v, WrittenLun& l) { l.reserved = v.boolean(); }},
    {"unit_attention", [](const JsonValue& v, WrittenLun& l) { l.unit_attention = v.boolean(); }},
};

Lun read_lun(const JsonValue& value) {
    WrittenLun lun;
    read_object<WrittenLun>(value, kLunFields, lun);
    if (lun.capacity.has_value() == (lun.block_count != 0)) {
        value.fail("a LUN needs either \"capacity\" or \"block_count\"");
    }
    if (lun.capacity && (lun.block_size == 0 || *lun.capacity % lun.block_size != 0)) {
        value.member("capacity")
            .fail(fmt::format("{} bytes are no whole number of blocks of {} bytes", *lun.capacity,
                              lun.block_size));
    }
    if (lun.capacity) lun.block_count = *lun.capacity / lun.block_size;
    return lun;
}

constexpr JsonField<Target> kTargetFields[]{
    {"index", [](const JsonValue& v, Target& t) { t.index = v.number<uint32_t>(kMaxTargets - 1); },
     Presence::required},
    {"bus", [](const JsonValue& v, Target& t) { t.bus = v.number<uint32_t>(); }},
    {"wwnn", [](const JsonValue& v, Target& t) { t.wwnn = read_wwn(v); }, Presence::required},
    {"wwpn", [](const JsonValue& v, Target& t) { t.wwpn = read_wwn(v); }, Presence::required},
    {"port_id", [](const JsonValue& v, Target& t) { t.port_id = read_fc_address(v); }},
    {"state", [](const JsonValue& v,
                 Target& t) { t.state = static_cast<uint16_t>(v.named(kPortStates, UINT16_MAX)); }},
    {"offline", [](const JsonValue& v, Target& t) { t.offline = v.boolean(); }},
    {"luns",
     [](const JsonValue& v, Target& t) {
         for (const JsonValue& lun : v.elements()) t.luns.push_back(read_lun(lun));
     }},
};

// ---- Ports

constexpr JsonField<Fcf> kFcfFields[]{
    {"switch_name", [](const JsonValue& v, Fcf& f) { f.switch_name = read_wwn(v); }, Presence::required},
    {"fabric_name", [](const JsonValue& v, Fcf& f) { f.fabric_name = read_wwn(v); }, Presence::required},
    {"fc_map", [](const JsonValue& v, Fcf& f) { f.fc_map = read_fc_address(v); }},
    {"vfid", [](const JsonValue& v, Fcf& f) { f.vfid = v.number<uint16_t>(); }},
    {"fcf_mac", [](const JsonValue& v, Fcf& f) { f.fcf_mac = read_mac(v); }, Presence::required},
    {"fcoe_mac", [](const JsonValue& v, Fcf& f) { f.fcoe_mac = read_mac(v); }},
    {"flogi_sent", [](const JsonValue& v, Fcf& f) { f.flogi_sent = v.boolean(); }},
    {"priority", [](const JsonValue& v, Fcf& f) { f.priority = v.number<uint8_t>(); }},
    {"flags", [](const JsonValue& v, Fcf& f) { f.flags = v.number<uint16_t>(); }},
    {"keep_alive_timeout", [](const JsonValue& v, Fcf& f) { f.keep_alive_timeout = v.number<uint32_t>(); }},
    {"selected", [](const JsonValue& v, Fcf& f) { f.selected = v.boolean(); }},
};

constexpr JsonField<Counter> kCounterFields[]{
    {"start", [](const JsonValue& v, Counter& c) { c.start = v.number<uint64_t>(); }},
    {"rate", [](const JsonValue& v, Counter& c) { c.rate = v.not_negative(); }},
};

size_t counter_index(const JsonValue& counters, const std::string& name) {
    for (size_t i = 0; i < kCounters; ++i) {
        if (kCounterNames[i] == name) return i;
    }
    const std::vector<std::string> names(kCounterNames.begin(), kCounterNames.end());
    counters.member(name).fail("there is no such counter; allowed are " + list_names(names));
}

void read_counters(const JsonValue& value, Port& port) {
    require_object(value);
    for (const auto& item : value.json().items()) {
        Counter& counter = port.counters[counter_index(value, item.key())];
        const JsonValue written = value.member(item.key());
        if (written.json().is_object()) {
            read_object<Counter>(written, kCounterFields, counter);
        } else {
            counter.start = written.number<uint64_t>();
        }
    }
}

// Written once for virtual ports and, with what only they have, for physical ports.
template <typename P>
constexpr JsonField<P> kPortFields[]{
    {"name", [](const JsonValue& v, P& p) { p.name = v.text(); }},
    {"wwnn", [](const JsonValue& v, P& p) { p.wwnn = read_wwn(v); }, Presence::required},
    {"wwpn", [](const JsonValue& v, P& p) { p.wwpn = read_wwn(v); }, Presence::required},
    {"mac", [](const JsonValue& v, P& p) { p.mac = read_mac(v); }},
    {"port_id", [](const JsonValue& v, P& p) { p.port_id = read_fc_address(v); }},
    {"port_type",
     [](const JsonValue& v, P& p) { p.port_type = static_cast<uint16_t>(v.named(kPortTypes, UINT16_MAX)); }},
    {"link", [](const JsonValue& v,
                P& p) { p.link_state = static_cast<uint32_t>(v.named(kPortStates, UINT32_MAX)); }},
    {"supported_speed", [](const JsonValue& v, P& p) { p.supported_speed = read_speeds(v); }},
    {"speed", [](const JsonValue& v, P& p) { p.speed = read_speeds(v); }},
    {"mtu", [](const JsonValue& v, P& p) { p.mtu = v.number<uint32_t>(); }},
    {"vlan", [](const JsonValue& v, P& p) { p.vlan = v.number<uint32_t>(4094); }},
    {"npiv_index", [](const JsonValue& v, P& p) { p.npiv_index = v.number<uint32_t>(); }},
    {"host_no", [](const JsonValue& v, P& p) { p.host_no = v.number<uint32_t>(); }},
    {"hba_name", [](const JsonValue& v, P& p) { p.hba_name = v.text(); }},
    {"fcfs", [](const JsonValue& v, P& p) { p.fcfs = read_array<Fcf>(v, kFcfFields); }},
    {"targets", [](const JsonValue& v, P& p) { p.targets = read_array<Target>(v, kTargetFields); }},
    {"counters", [](const JsonValue& v, P& p) { read_counters(v, p); }},
    {"target_count", [](const JsonValue& v, P& p) { p.reported_target_count = v.number<uint32_t>(); }},
    {"fcf_count", [](const JsonValue& v, P& p) { p.reported_fcf_count = v.number<uint32_t>(); }},
};

constexpr JsonField<PhysicalPort> kOwnPhysicalPortFields[]{
    {"function", [](const JsonValue& v, PhysicalPort& p) { p.pci_function = v.number<uint16_t>(7); }},
    {"port_number", [](const JsonValue& v, PhysicalPort& p) { p.port_number = v.number<uint16_t>(); }},
    {"npiv_count", [](const JsonValue& v, PhysicalPort& p) { p.reported_npiv_count = v.number<uint32_t>(); }},
    {"virtual_ports",
     [](const JsonValue& v, PhysicalPort& p) { p.virtual_ports = read_array<Port>(v, kPortFields<Port>); }},
};

const std::vector<JsonField<PhysicalPort>>& physical_port_fields() {
    static const std::vector<JsonField<PhysicalPort>> fields = [] {
        std::vector<JsonField<PhysicalPort>> all(std::begin(kPortFields<PhysicalPort>),
                                                 std::end(kPortFields<PhysicalPort>));
        all.insert(all.end(), std::begin(kOwnPhysicalPortFields), std::end(kOwnPhysicalPortFields));
        return all;
    }();
    return fields;
}

// ---- The host

constexpr JsonField<Adapter> kPciFields[]{
    {"address", read_pci_address, Presence::required},
    {"vendor_id", [](const JsonValue& v, Adapter& a) { a.vendor_id = v.number<uint16_t>(); },
     Presence::required},
    {"device_id", [](const JsonValue& v, Adapter& a) { a.device_id = v.number<uint16_t>(); },
     Presence::required},
    {"subsystem_vendor_id",
     [](const JsonValue& v, Adapter& a) { a.subsystem_vendor_id = v.number<uint16_t>(); }},
    {"subsystem_id", [](const JsonValue& v, Adapter& a) { a.subsystem_id = v.number<uint16_t>(); }},
    {"revision", [](const JsonValue& v, Adapter& a) { a.revision = v.number<uint16_t>(); }},
    {"speed", [](const JsonValue& v,
                 Adapter& a) { a.pcie_speed = static_cast<uint32_t>(v.named(kPcieSpeeds, UINT32_MAX)); }},
    {"width", [](const JsonValue& v, Adapter& a) { a.pcie_width = v.number<uint32_t>(); }},
};

constexpr JsonField<Adapter> kAdapterFields[]{
    {"driver", [](const JsonValue& v, Adapter& a) { a.driver = read_driver_kind(v); }, Presence::required},
    {"manufacturer", [](const JsonValue& v, Adapter& a) { a.manufacturer = v.text(); }},
    {"model", [](const JsonValue& v, Adapter& a) { a.model = v.text(); }},
    {"description", [](const JsonValue& v, Adapter& a) { a.description = v.text(); }},
    {"serial_number", [](const JsonValue& v, Adapter& a) { a.serial_number = v.text(); }},
    {"firmware_version", [](const JsonValue& v, Adapter& a) { a.firmware_version = v.text(); }},
    {"management_firmware",
     [](const JsonValue& v, Adapter& a) { a.management_firmware = read_management_firmware(v); }},
    {"chip_revision", [](const JsonValue& v, Adapter& a) { a.chip_revision = v.number<uint32_t>(); }},
    {"pci", [](const JsonValue& v, Adapter& a) { read_object<Adapter>(v, kPciFields, a); },
     Presence::required},
    {"ports",
     [](const JsonValue& v, Adapter& a) { a.ports = read_array<PhysicalPort>(v, physical_port_fields()); },
     Presence::required},
};

constexpr JsonField<Driver> kDriverFields[]{
    {"state", [](const JsonValue& v, Driver& d) { d.presence = read_presence(v); }},
    {"name", [](const JsonValue& v, Driver& d) { d.name = v.text(); }},
    {"version", [](const JsonValue& v, Driver& d) { d.version = v.text(); }},
    {"date", [](const JsonValue& v, Driver& d) { d.date = v.text(); }},
    {"loaded", [](const JsonValue& v, Driver& d) { d.loaded = v.boolean(); }},
    {"order",
     [](const JsonValue& v, Driver& d) {
         for (const JsonValue& port : v.elements()) d.order.push_back(port.text());
     }},
    {"port_count",
     [](const JsonValue& v, Driver& d) { d.reported_port_count = v.number<int64_t>(UINT32_MAX); }},
};

constexpr JsonField<Model> kDriversFields[]{
    {"kron",
     [](const JsonValue& v, Model& m) { read_object<Driver>(v, kDriverFields, m.driver(DriverKind::kron)); }},
    {"pyx",
     [](const JsonValue& v, Model& m) { read_object<Driver>(v, kDriverFields, m.driver(DriverKind::pyx)); }},
    {"legacy", [](const JsonValue& v,
                  Model& m) { read_object<Driver>(v, kDriverFields, m.driver(DriverKind::legacy)); }},
};

constexpr JsonField<Fault> kFaultFields[]{
    {"operation", [](const JsonValue& v, Fault& f) { f.operation = read_operation(v); }, Presence::required},
    {"driver", [](const JsonValue& v, Fault& f) { f.driver = read_driver_kind(v); }},
    {"port", [](const JsonValue& v, Fault& f) { f.port = v.text(); }},
    {"target", [](const JsonValue& v, Fault& f) { f.target = v.number<uint32_t>(kMaxTargets - 1); }},
    {"opcode", [](const JsonValue& v, Fault& f) { f.opcode = v.number<uint8_t>(); }},
    {"occurrence", [](const JsonValue& v, Fault& f) { f.occurrence = v.integer(1, UINT32_MAX); }},
    {"count", [](const JsonValue& v, Fault& f) { f.count = read_count_or_always(v); }},
    {"status",
     [](const JsonValue& v, Fault& f) { f.status = static_cast<uint32_t>(v.integer(1, UINT32_MAX)); }},
    {"errno", [](const JsonValue& v, Fault& f) { f.error = read_errno(v); }},
};

constexpr JsonField<Model> kHostFields[]{
    {"name", [](const JsonValue& v, Model& m) { m.name = v.text(); }},
    {"system_name", [](const JsonValue& v, Model& m) { m.system_name = v.text(); }},
    {"release", [](const JsonValue& v, Model& m) { m.release = v.text(); }},
    {"version", [](const JsonValue& v, Model& m) { m.version = v.text(); }},
    {"machine", [](const JsonValue& v, Model& m) { m.machine = v.text(); }},
    {"effective_user", [](const JsonValue& v, Model& m) { m.effective_user = v.number<uint32_t>(); }},
    {"drivers", [](const JsonValue& v, Model& m) { read_object<Model>(v, kDriversFields, m); }},
    {"adapters", [](const JsonValue& v, Model& m) { m.adapters = read_array<Adapter>(v, kAdapterFields); },
     Presence::required},
    {"faults", [](const JsonValue& v, Model& m) { m.faults = read_array<Fault>(v, kFaultFields); }},
};

// Directories are the host file's, so that it may be used from anywhere.
void resolve_directories(Model& model, const std::filesystem::path& base) {
    const auto resolve = [&](Port& port) {
        for (Target& target : port.targets) {
            for (Lun& lun : target.luns) {
                if (!lun.directory.empty())
                    lun.directory = std::filesystem::absolute(base / lun.directory).lexically_normal();
            }
        }
    };
    for (Adapter& adapter : model.adapters) {
        for (PhysicalPort& physical : adapter.ports) {
            resolve(physical);
            for (Port& port : physical.virtual_ports) resolve(port);
        }
    }
}

}  // namespace

Model parse_host(std::string_view text, const std::string& name, const std::filesystem::path& directory) {
    Model model;
    try {
        const nlohmann::json document = parse_document(text);
        read_object<Model>(JsonValue(document, ""), kHostFields, model);
    } catch (const JsonMistake& mistake) {
        // A place in the text follows the file's name closely, as compilers write it; a pointer stands apart.
        const bool is_place = std::isdigit(static_cast<unsigned char>(mistake.what()[0])) != 0;
        throw HostError(fmt::format("{}:{}{}", name, is_place ? "" : " ", mistake.what()));
    }
    if (const auto problem = find_problem(model)) {
        throw HostError(fmt::format("{}: {}: {}", name, problem->pointer, problem->reason));
    }
    resolve_directories(model, directory);
    return model;
}

Model read_host_file(const std::filesystem::path& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
        throw HostError(path.string() + ": this is a directory; name a host file");
    errno = 0;
    std::ifstream stream(path, std::ios::binary);
    const std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (!stream.is_open() || stream.bad()) {
        throw HostError(
            fmt::format("{}: the host file cannot be read: {}; name a file that is there and may be read",
                        path.string(), std::strerror(errno)));
    }
    return parse_host(text, path.string(), path.parent_path());
}

}  // namespace hostsim
