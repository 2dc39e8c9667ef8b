// host_fields.cpp - every field of a host, as tables: its key in host files, type, range and effect.
#include <array>

#include "field.h"

namespace hostsim {
namespace {

constexpr Word kPortStates[]{{"unknown", 0}, {"not_present", 1}, {"online", 2},      {"offline", 3},
                             {"blocked", 4}, {"bypassed", 5},    {"diagnostics", 6}, {"link_down", 7},
                             {"error", 8},   {"loopback", 9},    {"deleted", 10}};
constexpr Word kPortTypes[]{{"unknown", 0}, {"other", 1}, {"not_present", 2},    {"nport", 3},
                            {"nlport", 4},  {"lport", 5}, {"point_to_point", 6}, {"npiv", 7}};
constexpr Word kSpeeds[]{{"unknown", 0},    {"1 Gbit", 0x1},    {"2 Gbit", 0x2},    {"10 Gbit", 0x4},
                         {"4 Gbit", 0x8},   {"8 Gbit", 0x10},   {"16 Gbit", 0x20},  {"32 Gbit", 0x40},
                         {"20 Gbit", 0x80}, {"40 Gbit", 0x100}, {"50 Gbit", 0x200}, {"100 Gbit", 0x400},
                         {"25 Gbit", 0x800}};
constexpr Word kPcieSpeeds[]{{"2.5 GT/s", 20}, {"5 GT/s", 21}, {"8 GT/s", 22}};
constexpr Word kBlockSizes[]{{"512", 512}, {"4096", 4096}};
constexpr Word kAlways[]{{"always", Fault::kAlways}};

template <typename Enum>
constexpr Word word(std::string_view name, Enum value) {
    return {name, static_cast<uint64_t>(value)};
}
constexpr Word kAddressing[]{word("peripheral", Lun::Addressing::peripheral),
                             word("flat", Lun::Addressing::flat)};
constexpr Word kBacking[]{word("memory", Lun::Backing::memory), word("file", Lun::Backing::file)};
// Only the legacy driver has the last state.
constexpr Word kPresence[]{word("present", Driver::Presence::present),
                           word("absent", Driver::Presence::absent),
                           word("no_device", Driver::Presence::no_device)};

// The words of an enumeration, from the table of names in the model.
template <size_t Count>
constexpr std::array<Word, Count> words_of(const std::array<std::string_view, Count>& names) {
    std::array<Word, Count> words{};
    for (size_t i = 0; i < Count; ++i) words[i] = {names[i], i};
    return words;
}
constexpr auto kDriverWords = words_of(kDriverKindNames);
constexpr auto kOperationWords = words_of(kOperationNames);

constexpr uint64_t kLargestFcAddress = 0xFFFFFF;

template <auto Member>
constexpr Field wwn_field(std::string_view key, std::string_view effect) {
    return field<Member>(key, FieldType::wwn, effect);
}

template <auto Member>
constexpr Field mac_field(std::string_view key, std::string_view effect) {
    return field<Member>(key, FieldType::mac, effect);
}

template <auto Member>
constexpr Field speeds_field(std::string_view key, std::string_view effect) {
    Field result = word_field<Member>(key, kSpeeds, effect, UINT16_MAX);
    result.type = FieldType::words;
    return result;
}

// An object for a nested record, or for further fields of the same record.
constexpr Field object_field(std::string_view key, const FieldTable& table, void* (*object)(void*),
                             std::string_view effect) {
    return {.key = key, .type = FieldType::object, .effect = effect, .table = &table, .object = object};
}

// ---- LUNs and targets

constexpr Field block_size_field() {
    Field result = number_field<&Lun::block_size>("block_size", 512, 4096, "Bytes of a block.");
    result.allowed_words = kBlockSizes;
    return result;
}

// The size is kept in the number of blocks until the block size is known.
constexpr Field capacity_field() {
    Field result = field<&Lun::block_count>(
        "capacity", FieldType::size,
        "Size in bytes or with a unit: \"2 TiB\", \"500 GB\". Either this or block_count is given.");
    result.get = nullptr;
    return result.otherwise("block_count blocks");
}

constexpr Field kLunFields[]{
    number_field<&Lun::number>("number", 0, 16383, "The LUN; with peripheral addressing up to 255.")
        .required(),
    number_field<&Lun::count>("count", 1, 16384, "Makes so many LUNs of this description, numbered upwards."),
    word_field<&Lun::addressing>("addressing", kAddressing, "How REPORT LUNS lists the LUN.")
        .otherwise("peripheral up to 255, flat above"),
    capacity_field(),
    number_field<&Lun::block_count>("block_count", 1, UINT64_MAX, "Size in blocks.").otherwise("capacity"),
    block_size_field(),
    number_field<&Lun::device_type>("device_type", 0, 31, "SCSI peripheral device type; 0 is a disk."),
    text_field<&Lun::vendor>("vendor", 8, "INQUIRY vendor."),
    text_field<&Lun::product>("product", 16, "INQUIRY product."),
    text_field<&Lun::revision>("revision", 4, "INQUIRY product revision."),
    text_field<&Lun::serial>("serial_number", 32, "Unit serial number.").otherwise("made from the NAA id"),
    wwn_field<&Lun::naa>("naa", "NAA id. LUNs with the same id are one disk that several paths reach.")
        .otherwise("made from the target's WWPN and the LUN"),
    word_field<&Lun::backing>("backing", kBacking,
                              "Where the contents are. Memory is lost when the host ends; files are kept "
                              "below the host's root or in the directory."),
    text_field<&Lun::directory>("directory", 4095,
                                "Directory of a file-backed LUN's contents, relative to the host file.")
        .otherwise("below the host's root"),
    boolean_field<&Lun::not_ready>("not_ready", "The LUN answers 'not ready'."),
    boolean_field<&Lun::reserved>("reserved", "Another initiator has reserved the LUN."),
    boolean_field<&Lun::unit_attention>("unit_attention", "The first command reports a reset."),
};
constexpr std::string_view kFileBacking[]{"file"};
constexpr Condition kLunConditions[]{
    {"directory", "backing", kFileBacking, "only a LUN whose backing is \"file\" has a directory"},
};
constexpr FieldTable kLunTable{.name = "lun",
                               .fields = kLunFields,
                               .defaults = default_record<Lun>,
                               .exactly_one = {"capacity", "block_count"},
                               .conditions = kLunConditions};

constexpr Field kTargetFields[]{
    number_field<&Target::index>("index", 0, kMaxTargets - 1,
                                 "Number of the target on its port; gaps are allowed.")
        .required(),
    number_field<&Target::bus>("bus", "SCSI bus."),
    wwn_field<&Target::wwnn>("wwnn", "World wide node name.").required(),
    wwn_field<&Target::wwpn>("wwpn", "World wide port name, unique on the port.").required(),
    number_field<&Target::port_id>("port_id", 0, kLargestFcAddress, "Fibre Channel address."),
    word_field<&Target::state>("state", kPortStates, "State that the driver reports.", UINT16_MAX),
    boolean_field<&Target::offline>("offline", "The driver answers 'device offline' for the target."),
    list_field<&Target::luns>("luns", kLunTable, "Logical units."),
};
constexpr FieldTable kTargetTable{
    .name = "target", .fields = kTargetFields, .defaults = default_record<Target>};

// ---- Ports

constexpr Field kFcfFields[]{
    wwn_field<&Fcf::switch_name>("switch_name", "WWN of the switch.").required(),
    wwn_field<&Fcf::fabric_name>("fabric_name", "WWN of the fabric.").required(),
    number_field<&Fcf::fc_map>("fc_map", 0, 0xFFFFFF,
                               "FC-MAP, the first three bytes of assigned MAC addresses."),
    number_field<&Fcf::vfid>("vfid", "Virtual fabric id."),
    mac_field<&Fcf::fcf_mac>("fcf_mac", "MAC address of the FCF.").required(),
    mac_field<&Fcf::fcoe_mac>("fcoe_mac", "MAC address that the FCF assigned."),
    boolean_field<&Fcf::flogi_sent>("flogi_sent", "Whether the port has sent its login."),
    number_field<&Fcf::priority>("priority", "Priority of the FCF; the lowest wins."),
    number_field<&Fcf::flags>("flags", "Flags of the FCF as the driver reports them."),
    number_field<&Fcf::keep_alive_timeout>("keep_alive_timeout", "Milliseconds between keep-alive frames."),
    boolean_field<&Fcf::selected>("selected", "Whether the port uses this FCF."),
};
constexpr FieldTable kFcfTable{.name = "fcf", .fields = kFcfFields, .defaults = default_record<Fcf>};

constexpr Field kCounterFields[]{
    number_field<&Counter::start>("start", "Value when the host starts."),
    field<&Counter::rate>("rate", FieldType::rate, "Growth a second."),
};
constexpr FieldTable kCounterTable{
    .name = "counter", .fields = kCounterFields, .defaults = default_record<Counter>};

template <size_t Index>
void* counter_of(void* port) {
    return &static_cast<Port*>(port)->counters[Index];
}

template <size_t... Index>
constexpr std::array<Field, kCounters> make_counter_fields(std::index_sequence<Index...>) {
    return {Field{.key = kCounterNames[Index],
                  .type = FieldType::counter,
                  .effect = "",
                  .table = &kCounterTable,
                  .object = counter_of<Index>}...};
}
constexpr auto kCountersFields = make_counter_fields(std::make_index_sequence<kCounters>());
constexpr FieldTable kCountersTable{
    .name = "counters", .fields = kCountersFields, .defaults = default_record<Port>};

void* same_record(void* record) { return record; }

constexpr Field kPortFields[]{
    text_field<&Port::name>("name", 64, "Name by which faults and orders refer to the port; unique."),
    wwn_field<&Port::wwnn>("wwnn", "World wide node name.").required(),
    wwn_field<&Port::wwpn>("wwpn", "World wide port name, unique on the host.").required(),
    mac_field<&Port::mac>("mac", "MAC address that FCoE uses.")
        .otherwise("made from the WWPN, for a virtual port from its port id"),
    number_field<&Port::port_id>("port_id", 0, kLargestFcAddress, "Fibre Channel address."),
    word_field<&Port::port_type>("port_type", kPortTypes, "Type of the port.", UINT16_MAX)
        .otherwise("nport, for a virtual port npiv"),
    word_field<&Port::link_state>("link", kPortStates, "State of the port.", UINT32_MAX),
    speeds_field<&Port::supported_speed>("supported_speed", "Speeds that the port supports."),
    speeds_field<&Port::speed>("speed", "Speed of the link."),
    number_field<&Port::mtu>("mtu", "Largest frame in bytes."),
    number_field<&Port::vlan>("vlan", 0, 4094, "VLAN that FCoE uses.").only_reported(),
    number_field<&Port::npiv_index>("npiv_index",
                                    "NPIV index, unique among a physical port and its virtual ports.")
        .otherwise("0, for virtual ports 1, 2, …"),
    number_field<&Port::host_no>("host_no", "SCSI host number, unique on the host.")
        .otherwise("the lowest free number from 2"),
    text_field<&Port::hba_name>("hba_name", 32, "Name of the adapter in the system, unique on the host.")
        .otherwise("\"vmhba\" and the host number"),
    list_field<&Port::fcfs>("fcfs", kFcfTable, "FCoE forwarders that the port knows."),
    list_field<&Port::targets>("targets", kTargetTable, "SCSI targets that the port sees."),
    object_field("counters", kCountersTable, same_record,
                 "Counters by name: a number that does not change, or a start and a rate."),
    number_field<&Port::reported_target_count>("target_count", "Reported instead of the number of targets.")
        .otherwise("the number of targets that are not offline"),
    number_field<&Port::reported_fcf_count>("fcf_count", "Reported instead of the number of FCFs.")
        .otherwise("the number of FCFs"),
};
constexpr FieldTable kPortTable{
    .name = "virtual_port", .fields = kPortFields, .defaults = default_record<Port>};

constexpr Field kPhysicalPortFields[]{
    number_field<&PhysicalPort::pci_function>("function", 0, 7, "PCI function of the port."),
    number_field<&PhysicalPort::port_number>("port_number", "Number of the port on its adapter.")
        .otherwise("its position, from 1"),
    number_field<&PhysicalPort::reported_npiv_count>("npiv_count",
                                                     "Reported instead of the number of virtual ports.")
        .otherwise("the number of virtual ports"),
    list_field<&PhysicalPort::virtual_ports>("virtual_ports", kPortTable, "NPIV ports on this port."),
};
void* as_port(void* physical) { return static_cast<Port*>(static_cast<PhysicalPort*>(physical)); }
constexpr FieldTable kPhysicalPortTable{.name = "physical_port",
                                        .fields = kPhysicalPortFields,
                                        .defaults = default_record<PhysicalPort>,
                                        .base = &kPortTable,
                                        .to_base = as_port};

// ---- Adapters

// Domain, bus and device in one number: 0xDDDDBBDD.
FieldValue get_pci_location(const void* record) {
    const auto& adapter = *static_cast<const Adapter*>(record);
    return uint64_t{adapter.pci_domain} << 16 | (adapter.pci_bus & 0xFFU) << 8 | (adapter.pci_device & 0xFFU);
}

void set_pci_location(void* record, const FieldValue& value) {
    auto& adapter = *static_cast<Adapter*>(record);
    const auto location = std::get<uint64_t>(value);
    adapter.pci_domain = static_cast<uint16_t>(location >> 16);
    adapter.pci_bus = static_cast<uint16_t>(location >> 8 & 0xFF);
    adapter.pci_device = static_cast<uint16_t>(location & 0xFF);
}

constexpr Field kPciFields[]{
    Field{.key = "address",
          .type = FieldType::pci_location,
          .effect = "Domain, bus and device, such as \"0000:3b:00\"; the ports are functions of it.",
          .is_required = true,
          .get = get_pci_location,
          .set = set_pci_location},
    number_field<&Adapter::vendor_id>("vendor_id", "PCI vendor id.").required(),
    number_field<&Adapter::device_id>("device_id",
                                      "PCI device id, by which programs choose between the native drivers.")
        .required(),
    number_field<&Adapter::subsystem_vendor_id>("subsystem_vendor_id", "PCI subsystem vendor id."),
    number_field<&Adapter::subsystem_id>("subsystem_id", "PCI subsystem id."),
    number_field<&Adapter::revision>("revision", "PCI revision."),
    word_field<&Adapter::pcie_speed>("speed", kPcieSpeeds, "Speed of the PCI Express link.", UINT32_MAX),
    number_field<&Adapter::pcie_width>("width", "Lanes of the PCI Express link."),
};
constexpr FieldTable kPciTable{.name = "pci", .fields = kPciFields, .defaults = default_record<Adapter>};

constexpr Field kAdapterFields[]{
    word_field<&Adapter::driver>("driver", kDriverWords, "Driver that serves the adapter.").required(),
    text_field<&Adapter::manufacturer>("manufacturer", 64, "Reported with each port."),
    text_field<&Adapter::model>("model", 32, "Reported with each port."),
    text_field<&Adapter::description>("description", 128, "Reported with each port.")
        .otherwise("manufacturer and model"),
    text_field<&Adapter::serial_number>("serial_number", 32, "Reported with each port."),
    text_field<&Adapter::firmware_version>("firmware_version", 32, "Reported with each port."),
    field<&Adapter::management_firmware>("management_firmware", FieldType::version,
                                         "Version of the management firmware, such as \"08.37.30.00\"; "
                                         "reported by the kron driver."),
    number_field<&Adapter::chip_revision>("chip_revision",
                                          "Revision of the chip; reported by the native drivers."),
    object_field("pci", kPciTable, same_record, "The adapter on the PCI bus.").required(),
    list_field<&Adapter::ports>("ports", kPhysicalPortTable, "Physical ports.").required(),
};
constexpr FieldTable kAdapterTable{
    .name = "adapter", .fields = kAdapterFields, .defaults = default_record<Adapter>};

// ---- Drivers

constexpr Field presence_field(std::span<const Word> words, std::string_view effect) {
    return word_field<&Driver::presence>("state", words, effect)
        .otherwise("present where an adapter of its kind is");
}

constexpr Field kDriverFields[]{
    text_field<&Driver::name>("name", 16, "Name that the driver reports.")
        .otherwise("kronfc, ostfc or dorfc"),
    text_field<&Driver::version>("version", 32, "Version that the driver reports.")
        .otherwise("one of the driver's own"),
    text_field<&Driver::date>("date", 32, "Date that the driver reports.")
        .otherwise("one of the driver's own"),
    boolean_field<&Driver::loaded>("loaded", "Whether the driver reports that it is loaded."),
    field<&Driver::order>("order", FieldType::text_list,
                          "Ports, by name or WWPN, that the driver enumerates before all others."),
    number_field<&Driver::reported_port_count>("port_count", "Reported instead of the number of ports.")
        .otherwise("the number of ports"),
};
constexpr FieldTable kDriverTable{
    .name = "driver", .fields = kDriverFields, .defaults = default_record<Driver>};
constexpr Field kNativeDriverFields[]{
    presence_field(std::span(kPresence).first(2), "Whether the driver's interface is there.")};
constexpr FieldTable kNativeDriverTable{.name = "native_driver",
                                        .fields = kNativeDriverFields,
                                        .defaults = default_record<Driver>,
                                        .base = &kDriverTable,
                                        .to_base = same_record};
constexpr Field kLegacyDriverFields[]{
    presence_field(kPresence, "Whether the driver's node is there; no_device: the node is a regular file.")};
constexpr FieldTable kLegacyDriverTable{.name = "legacy_driver",
                                        .fields = kLegacyDriverFields,
                                        .defaults = default_record<Driver>,
                                        .base = &kDriverTable,
                                        .to_base = same_record};

template <DriverKind Kind>
void* driver_of(void* model) {
    return &static_cast<Model*>(model)->driver(Kind);
}
constexpr Field kDriversFields[]{
    object_field("kron", kNativeDriverTable, driver_of<DriverKind::kron>, "The kron driver."),
    object_field("pyx", kNativeDriverTable, driver_of<DriverKind::pyx>, "The pyx driver."),
    object_field("legacy", kLegacyDriverTable, driver_of<DriverKind::legacy>, "The legacy driver."),
};
constexpr FieldTable kDriversTable{
    .name = "drivers", .fields = kDriversFields, .defaults = default_record<Model>};

// ---- Faults and the host

constexpr Field kFaultFields[]{
    word_field<&Fault::operation>("operation", kOperationWords, "What is asked of the driver.").required(),
    word_field<&Fault::driver>("driver", kDriverWords, "The driver that is asked.").otherwise("any driver"),
    text_field<&Fault::port>("port", 64, "Name or WWPN of the port that is asked.").otherwise("any port"),
    number_field<&Fault::target>("target", 0, kMaxTargets - 1, "Index of the target that is asked.")
        .otherwise("any target"),
    number_field<&Fault::opcode>("opcode", "SCSI operation code.").otherwise("any command"),
    number_field<&Fault::occurrence>("occurrence", 1, UINT32_MAX,
                                     "The first request that goes wrong, of those that match."),
    word_field<&Fault::count>("count", kAlways, "How many requests go wrong from there on.", INT64_MAX, 1),
    number_field<&Fault::status>("status", 1, UINT32_MAX, "Status that the driver answers.")
        .otherwise("none"),
    field<&Fault::error>("errno", FieldType::error_number, "Error of the call that fails, by name or number.")
        .otherwise("none"),
};
constexpr std::string_view kTargetOperations[]{"tgt_info", "scsi"};
constexpr std::string_view kScsiOperation[]{"scsi"};
constexpr std::string_view kPortOperations[]{"hostno",   "pci_info", "port_info", "port_stats",
                                             "tgt_info", "fcf_info", "scsi"};
constexpr std::string_view kAnswered[]{"init",       "hba_count", "hostno",   "pci_info", "port_info",
                                       "port_stats", "tgt_info",  "fcf_info", "scsi"};
constexpr Condition kFaultConditions[]{
    {"port", "operation", kPortOperations, "this operation is asked of no port"},
    {"target", "operation", kTargetOperations, "only \"tgt_info\" and \"scsi\" go to a target"},
    {"opcode", "operation", kScsiOperation, "only \"scsi\" carries an operation code"},
    {"status", "operation", kAnswered, "opening and closing the node fails with an \"errno\" only"},
};
constexpr FieldTable kFaultTable{.name = "fault",
                                 .fields = kFaultFields,
                                 .defaults = default_record<Fault>,
                                 .at_least_one = {"status", "errno"},
                                 .conditions = kFaultConditions};

constexpr Field kHostFields[]{
    text_field<&Model::name>("name", 64, "Node name of the system."),
    text_field<&Model::system_name>("system_name", 64, "Name of the operating system."),
    text_field<&Model::release>("release", 64, "Release of the operating system."),
    text_field<&Model::version>("version", 64, "Version of the operating system."),
    text_field<&Model::machine>("machine", 64, "Name of the hardware."),
    number_field<&Model::effective_user>("effective_user", "User id that the host's programs see as theirs."),
    object_field("drivers", kDriversTable, same_record, "The FCoE drivers."),
    list_field<&Model::adapters>("adapters", kAdapterTable,
                                 "Converged network adapters, in the order of their discovery.")
        .required(),
    list_field<&Model::faults>("faults", kFaultTable, "Requests that go wrong."),
};
constexpr FieldTable kHostTable{.name = "host", .fields = kHostFields, .defaults = default_record<Model>};

}  // namespace

const FieldTable& host_table() { return kHostTable; }

}  // namespace hostsim
