// TRELM_GetFcoeInfo and TRELM_GetVNPortInfo: every byte of both records over every driver, what a refresh
// keeps, and how they fail.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

constexpr uint64_t kNodeName = 0x2000'001B'21AB'CDE0;
constexpr uint64_t kPortName = 0x2001'001B'21AB'CDE0;
constexpr uint64_t kVirtualName = 0x2002'001B'21AB'CDE1;
constexpr uint64_t kSwitchName = 0x1000'0005'3312'3456;
constexpr uint64_t kFabricName = 0x2000'0005'3378'9ABC;
constexpr char kFullText[] = "a model name that fills its room";
constexpr char kHbaName[] = "vmhba-of-the-second-port-32-byte";

// A host whose second port has a value of its own in every field.
hostsim::Model described(DriverKind kind) {
    hostsim::Model model = two_port_host(kind);
    hostsim::Driver& driver = model.driver(kind);
    driver.name = "drv-of-16-bytes!", driver.version = "1.2.3.4", driver.date = "Jan 02 2020";
    driver.loaded = false;  // that it answers shows that it is
    hostsim::Adapter& adapter = model.adapters[0];
    adapter.model = kFullText, adapter.description = "an adapter for tests";
    adapter.firmware_version = "9.8.7", adapter.management_firmware = 0x08251E00;
    adapter.subsystem_vendor_id = 0x1234, adapter.subsystem_id = 0x5678;
    adapter.pci_domain = 0x0102, adapter.pci_bus = 0x81, adapter.pci_device = 0x1E;
    adapter.revision = 0x21, adapter.chip_revision = 0xC0FFEE01;
    adapter.pcie_speed = 21, adapter.pcie_width = 4;
    hostsim::PhysicalPort& port = adapter.ports[1];
    port.pci_function = 5, port.port_number = 0x107;
    port.reported_npiv_count = 0x01020304, port.npiv_index = 77;
    port.wwnn = kNodeName, port.wwpn = kPortName, port.mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    port.mtu = 0x00091234, port.vlan = 0x000A03EA, port.port_id = 0x00EF1234;
    port.supported_speed = 0x8124, port.speed = 0x8004;
    port.hba_name = kHbaName, port.reported_target_count = 0x01000002;
    hostsim::Fcf& fcf = port.fcfs[0];
    fcf.switch_name = kSwitchName, fcf.fabric_name = kFabricName, fcf.fc_map = 0x0EFC12;
    fcf.fcf_mac = {6, 5, 4, 3, 2, 1}, fcf.fcoe_mac = {9, 9, 9, 9, 9, 9};
    fcf.priority = 200, fcf.keep_alive_timeout = 0x12345678;
    hostsim::Port& npiv = port.virtual_ports[0];
    npiv.npiv_index = 300, npiv.wwnn = kNodeName + 1, npiv.wwpn = kVirtualName;
    npiv.port_id = 0x00EF1235, npiv.vlan = 0xBEEF;
    npiv.fcfs.clear();
    return model;
}

class PortInfo : public OnEachDriver {
  protected:
    PortInfo() : OnEachDriver(described(GetParam())) { open_port(1); }

    bool native() const { return GetParam() != DriverKind::legacy; }
    bool kron() const { return GetParam() == DriverKind::kron; }
    hostsim::PhysicalPort& second_port() { return host.model().port(0, 1); }

    // The first 460 bytes, which every version has, on top of what the caller's record held.
    Bytes fcoe_info(size_t size, uint32_t version) const {
        const uint64_t device_ids[]{0x8080, 0x16A1, 0x168E};
        return Bytes::initial(size)
            .text(4, kFullText, 32)
            .text(36, native() ? "an adapter for tests" : "Calvexa 10G FCoE Adapter", 128)
            .text(164, "1.2.3.4", 32)
            .text(196, "Jan 02 2020", 32)
            .text(228, "drv-of-16-bytes!", 16)
            .copy(245, "\x02\x11\x22\x33\x44\x55", 6)
            .wwn(251, kNodeName)
            .wwn(259, kPortName)
            .text(424, "9.8.7", 32)
            .put(Field{0, 4, version}, Field{244, 1, 1}, Field{267, 4, 0x00091234}, Field{400, 4, 0x000A03EA},
                 Field{404, 2, 0x81}, Field{406, 2, 0x1E}, Field{408, 2, 5}, Field{410, 2, 0x1077},
                 Field{412, 2, device_ids[static_cast<size_t>(GetParam())]}, Field{414, 2, 0x1234},
                 Field{416, 2, 0x5678}, Field{418, 2, 0x0102}, Field{420, 2, 0x21},
                 Field{422, 2, kron() ? 2U : 7U}, Field{456, 4, 0x01020304});
    }
    // The first 136 bytes of the physical port's record.
    static Bytes vnport_info(size_t size, uint32_t version) {
        return Bytes::initial(size)
            .wwn(4, kNodeName)
            .wwn(12, kPortName)
            .wwn(20, kPortName)
            .wwn(50, kFabricName)
            .copy(58, "\x06\x05\x04\x03\x02\x01", 6)
            .wwn(104, kSwitchName)
            .put(Field{0, 4, version}, Field{80, 4, 0xEF1234}, Field{84, 4, 0x0EFC12}, Field{88, 2, 0x03EA},
                 Field{90, 1, 200}, Field{91, 1, 0}, Field{92, 4, 0x12345678}, Field{96, 8, 0x8004},
                 Field{112, 4, 8}, Field{116, 8, 0x8124}, Field{124, 4, 0x01000002}, Field{128, 4, 2},
                 Field{132, 4, 77});
    }
    // Calls with a record of the expected one's size and version and compares the two, guards included.
    template <typename Call>
    static void expect_record(const Bytes& expected, const Call& call) {
        GuardedBytes record(expected.size());
        memcpy(record.data(), expected.data(), 4);
        EXPECT_EQ(call(record.data()), TRELM_STATUS_OK);
        EXPECT_EQ(contents(record), expected.all());
        EXPECT_TRUE(record.guards_intact());
    }
    static void expect_fcoe_info(const Bytes& expected) {
        const auto call = [](uint8_t* to) {
            return TRELM_GetFcoeInfo(2, reinterpret_cast<TRELM_FCOE_INFO*>(to));
        };
        expect_record(expected, call);
    }
    static void expect_vnport_info(uint32_t index, const Bytes& expected) {
        expect_record(expected, [index](uint8_t* to) {
            return TRELM_GetVNPortInfo(2, index, reinterpret_cast<TRELM_VNPORT_INFO*>(to));
        });
    }
};
TRELM_ON_EACH_DRIVER(PortInfo);

TEST_P(PortInfo, BothRecordsHaveEveryFieldInPlaceAndEarlierVersionsMayEndEarly) {
    Bytes fcoe = fcoe_info(508, 2).put(Field{460, 4, 50}, Field{464, 4, 5},
                                       Field{468, 4, native() ? 0xC0FFEE01 : 0}, Field{472, 4, 4});
    if (kron()) fcoe.text(476, "08.37.30.00", 32);
    host.clear_calls();
    expect_fcoe_info(fcoe);
    EXPECT_TRUE(host.calls().empty()) << "the driver was asked for what discovery stored";
    expect_vnport_info(77, vnport_info(168, 2).text(136, kHbaName, 32));
    for (const uint32_t version : {0U, 1U, 3U, 0xFFFFFFFFU}) {
        expect_fcoe_info(fcoe_info(460, version));
        expect_vnport_info(77, vnport_info(136, version));
    }
}

TEST_P(PortInfo, AVirtualPortNamesItsParentAndWithoutFcfIsAskedForNone) {
    host.clear_calls();
    const uint64_t default_speed = 4;
    const Bytes zeros(8);
    expect_vnport_info(
        300, vnport_info(168, 2)
                 .wwn(4, kNodeName + 1)
                 .wwn(12, kVirtualName)
                 .copy(50, zeros.data(), 8)
                 .copy(58, zeros.data(), 6)
                 .copy(104, zeros.data(), 8)
                 .text(136, "vmhba6", 32)
                 .put(Field{80, 4, 0xEF1235}, Field{84, 4, 0}, Field{88, 2, 0xBEEF}, Field{90, 1, 0},
                      Field{91, 1, 1}, Field{92, 4, 0}, Field{96, 8, default_speed},
                      Field{116, 8, default_speed}, Field{124, 4, 2}, Field{128, 4, 0}, Field{132, 4, 300}));
    EXPECT_EQ(host.count_calls(Operation::port_info), 1U);
    EXPECT_EQ(host.count_calls(Operation::fcf_info), 0U);
}

TEST_P(PortInfo, ARefreshBringsTheLiveFieldsUpToDateAndNoOthers) {
    host.edit([](hostsim::Model& model) {
        hostsim::PhysicalPort& port = model.port(0, 1);
        port.port_id = 0xABCDEF, port.speed = 1, port.supported_speed = 3;
        port.reported_target_count = 9, port.link_state = 7;
        // Of these the registry keeps what discovery found.
        port.vlan = 5, port.mtu = 6, port.wwnn = 7, port.hba_name = "changed", port.reported_fcf_count = 1;
    });
    expect_vnport_info(77, vnport_info(168, 2)
                               .text(136, kHbaName, 32)
                               .put(Field{80, 4, 0xABCDEF}, Field{96, 8, 1}, Field{112, 4, 4},
                                    Field{116, 8, 3}, Field{124, 4, 9}));
    for (const uint32_t state : {2U, 7U, 0U, 1U, 3U, 4U, 6U, 8U, 0xFFFFFFFFU}) {
        second_port().link_state = state;
        TRELM_VNPORT_INFO info{};
        EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, &info), TRELM_STATUS_OK);
        EXPECT_EQ(info.PortState, state == 2 ? 8U : state == 7 || !native() ? 4U : 0x80000000U) << state;
    }
}

TEST_P(PortInfo, BadArgumentsAreRefusedInTheirOrderAndLogged) {
    Guarded<TRELM_FCOE_INFO> fcoe;
    Guarded<TRELM_VNPORT_INFO> info;
    LogCapture log;
    for (const uint32_t handle : {0U, 1U, 99U}) {
        log.take();
        EXPECT_EQ(TRELM_GetFcoeInfo(handle, nullptr), TRELM_STATUS_FAILED);
        EXPECT_EQ(TRELM_GetVNPortInfo(handle, 0, nullptr), TRELM_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(TRELM_GetVNPortInfo(handle, 0, info.get()), TRELM_STATUS_FAILED);
        EXPECT_EQ(log.take_of({"TRELM_GetFcoeInfo", "TRELM_GetVNPortInfo"}),
                  lines(fmt::format("TRELM_GetFcoeInfo({}): ", handle), {"entered.", "get pdb failed."}) +
                      lines(fmt::format("TRELM_GetVNPortInfo({}): ", handle),
                            {"entered.", "invalid parameter.", "entered.", "get pdb failed."}));
    }
    EXPECT_EQ(TRELM_GetFcoeInfo(2, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(log.take(), lines("TRELM_GetFcoeInfo(2): ", {"entered.", "invalid parameter."}));
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 78, info.get()), TRELM_STATUS_FAILED) << "no port has this index";
    EXPECT_TRUE(info.untouched());
}

TEST_P(PortInfo, SuccessIsTracedStepByStep) {
    LogCapture log;
    log.take();
    TRELM_VNPORT_INFO info{};
    TRELM_FCOE_INFO fcoe{};
    TRELM_GetFcoeInfo(2, &fcoe);
    EXPECT_EQ(log.take(), lines("TRELM_GetFcoeInfo(2): ", {"entered.", "exiting, rval=0"}));
    TRELM_GetVNPortInfo(2, 77, &info);
    const std::string own = "TRELM_GetVNPortInfo(2): ";
    Lines expected = lines(own, {"entered.", "callin native port info."}) +
                     lines(transport(GetParam()) + "get_port_info(2): ",
                           {"entered.", kron() ? "exiting. ret=0" : "exiting."}) +
                     lines(own, {"callin native fcf info."}) +
                     lines(transport(GetParam()) + "get_fcf_info(2): ",
                           {"entered.", native() ? "exiting. ret=0" : "exiting."}) +
                     lines(own, {"exiting, rval=0"});
    if (!kron())
        std::erase_if(expected, [](const std::string& line) { return line.find("callin") != line.npos; });
    EXPECT_EQ(log.take(), expected);
}

TEST_P(PortInfo, DriverFailuresAreTranslatedLeaveTheRecordAndKeepTheTargetCount) {
    Guarded<TRELM_VNPORT_INFO> info;
    const auto call = [&] { return TRELM_GetVNPortInfo(2, 77, info.get()); };
    LogCapture log;
    uint32_t targets = 0x01000002;
    second_port().reported_target_count = 41;
    for (const auto& [operation, text] :
         {std::pair{Operation::port_info, "port info"}, {Operation::fcf_info, "fcf info"}}) {
        expect_failures_translated(host, operation, call);
        for (const auto& [failure, end] : {std::pair{Failure{.status = 3}, "stat=3 errno=77"},
                                           {Failure{.error = EIO}, "stat=0 errno=5"}}) {
            failure.of(host, operation);
            errno = 77;
            call();
            EXPECT_EQ(log.take_of("TRELM_GetVNPortInfo").back(),
                      fmt::format("TRELM_GetVNPortInfo(2): {} failed, {}", text, end));
        }
        // The next list of targets is to know the count that came, whatever became of the FCF.
        if (operation == Operation::fcf_info) targets = 41;
        uint32_t count = 0;
        EXPECT_EQ(TRELM_GetTgtInfo(2, 77, &count, nullptr), TRELM_STATUS_INSUFFICIENT_BUFFER);
        EXPECT_EQ(count, targets);
    }
    EXPECT_TRUE(info.untouched());
}

class PcieLink : public testing::TestWithParam<DriverKind> {};
TRELM_ON_EACH_DRIVER(PcieLink);

TEST_P(PcieLink, SpeedsAndWidthsAreConverted) {
    const uint32_t rows[][4]{{20, 1, 25, 3}, {21, 2, 50, 4}, {22, 4, 80, 5}, {22, 8, 80, 6}, {23, 16, 0, 8},
                             {19, 32, 0, 9}, {0, 12, 0, 0},  {255, 3, 0, 0}, {80, 7, 0, 0}};
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 0);
    for (const auto& [speed, width, public_speed, public_width] : rows) {
        hostsim::Adapter& adapter = hostsim::hosts::add_adapter(model, GetParam(), 1);
        adapter.pcie_speed = speed, adapter.pcie_width = width;
    }
    const Loaded library(model);
    for (uint32_t i = 0; i < std::size(rows); ++i) {
        TRELM_FCOE_INFO info{};
        info.Version = 2;
        EXPECT_EQ(TRELM_GetFcoeInfo(open_port(i), &info), TRELM_STATUS_OK);
        EXPECT_EQ(info.PCIESpeed, rows[i][2]) << "speed " << rows[i][0];
        EXPECT_EQ(info.PCIEWidth, rows[i][3]) << "width " << rows[i][1];
    }
}

}  // namespace
