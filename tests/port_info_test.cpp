// TRELM_GetFcoeInfo and TRELM_GetVNPortInfo: every byte of both records over every driver, what a refresh
// keeps, and how they fail.
#include <gmock/gmock.h>

#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"

namespace {

using namespace trelm::test;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::ElementsAre;

constexpr uint64_t kNodeName = 0x2000'001B'21AB'CDE0;
constexpr uint64_t kPortName = 0x2001'001B'21AB'CDE0;
constexpr uint64_t kVirtualName = 0x2002'001B'21AB'CDE1;
const std::string kFullText = "a model name that fills its room";

// A host whose second port has a value of its own in every field.
hostsim::Model described(DriverKind kind) {
    hostsim::Model model = two_port_host(kind);
    model.driver(kind).name = "drv-of-16-bytes!";
    model.driver(kind).version = "1.2.3.4";
    model.driver(kind).date = "Jan 02 2020";
    model.driver(kind).loaded = false;  // that it answers shows that it is
    hostsim::Adapter& adapter = model.adapters[0];
    adapter.model = kFullText;
    adapter.description = "an adapter for tests";
    adapter.firmware_version = "9.8.7";
    adapter.management_firmware = 0x08251E00;
    adapter.subsystem_vendor_id = 0x1234;
    adapter.subsystem_id = 0x5678;
    adapter.pci_domain = 0x0102;
    adapter.pci_bus = 0x81;
    adapter.pci_device = 0x1E;
    adapter.revision = 0x21;
    adapter.pcie_speed = 21;
    adapter.pcie_width = 4;
    adapter.chip_revision = 0xC0FFEE01;
    hostsim::PhysicalPort& port = adapter.ports[1];
    port.pci_function = 5;
    port.port_number = 0x107;
    port.reported_npiv_count = 0x01020304;
    port.npiv_index = 77;
    port.wwnn = kNodeName;
    port.wwpn = kPortName;
    port.mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    port.mtu = 0x00091234;
    port.vlan = 0x000A03EA;
    port.port_id = 0x00EF1234;
    port.supported_speed = 0x8124;
    port.speed = 0x8004;
    port.hba_name = "vmhba-of-the-second-port-32-byte";
    port.reported_target_count = 0x01000002;
    hostsim::Fcf& fcf = port.fcfs[0];
    fcf.switch_name = 0x1000'0005'3312'3456;
    fcf.fabric_name = 0x2000'0005'3378'9ABC;
    fcf.fc_map = 0x0EFC12;
    fcf.fcf_mac = {0x06, 0x05, 0x04, 0x03, 0x02, 0x01};
    fcf.fcoe_mac = {9, 9, 9, 9, 9, 9};
    fcf.priority = 200;
    fcf.keep_alive_timeout = 0x12345678;
    hostsim::Port& npiv = port.virtual_ports[0];
    npiv.npiv_index = 300;
    npiv.wwnn = kNodeName + 1;
    npiv.wwpn = kVirtualName;
    npiv.port_id = 0x00EF1235;
    npiv.vlan = 0xBEEF;
    npiv.fcfs.clear();
    return model;
}

class PortInfo : public OnEachDriver {
  protected:
    PortInfo() : OnEachDriver(described(GetParam())) {}

    bool native() const { return GetParam() != DriverKind::legacy; }
    hostsim::PhysicalPort& second_port() { return host.model().port(0, 1); }

    // The first 460 bytes, which every version has, on top of what the caller's record held.
    void put_fcoe_info(Bytes& to) const {
        const uint16_t device_ids[]{0x8080, 0x16A1, 0x168E};
        to.text(4, kFullText, 32)
            .text(36, native() ? "an adapter for tests" : "Calvexa 10G FCoE Adapter", 128)
            .text(164, "1.2.3.4", 32)
            .text(196, "Jan 02 2020", 32)
            .text(228, "drv-of-16-bytes!", 16)
            .put(244, uint8_t{1})
            .copy(245, "\x02\x11\x22\x33\x44\x55", 6)
            .wwn(251, kNodeName)
            .wwn(259, kPortName)
            .put(267, uint32_t{0x00091234})
            .put(400, uint32_t{0x000A03EA})
            .put(404, uint16_t{0x81})
            .put(406, uint16_t{0x1E})
            .put(408, uint16_t{5})
            .put(410, uint16_t{0x1077})
            .put(412, device_ids[static_cast<size_t>(GetParam())])
            .put(414, uint16_t{0x1234})
            .put(416, uint16_t{0x5678})
            .put(418, uint16_t{0x0102})
            .put(420, uint16_t{0x21})
            .put(422, uint16_t{static_cast<uint16_t>(GetParam() == DriverKind::kron ? 2 : 7)})
            .text(424, "9.8.7", 32)
            .put(456, uint32_t{0x01020304});
    }
    static void put_vnport_info(Bytes& to) {
        to.wwn(4, kNodeName)
            .wwn(12, kPortName)
            .wwn(20, kPortName)
            .wwn(50, 0x2000'0005'3378'9ABC)
            .copy(58, "\x06\x05\x04\x03\x02\x01", 6)
            .put(80, uint32_t{0x00EF1234})
            .put(84, uint32_t{0x0EFC12})
            .put(88, uint16_t{0x03EA})
            .put(90, uint8_t{200})
            .put(91, uint8_t{0})
            .put(92, uint32_t{0x12345678})
            .put(96, uint64_t{0x8004})
            .wwn(104, 0x1000'0005'3312'3456)
            .put(112, uint32_t{8})
            .put(116, uint64_t{0x8124})
            .put(124, uint32_t{0x01000002})
            .put(128, uint32_t{2})
            .put(132, uint32_t{77});
    }
    uint32_t port_state(uint32_t link_state) {
        second_port().link_state = link_state;
        Guarded<TRELM_VNPORT_INFO> info;
        EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, info.get()), TRELM_STATUS_OK);
        return info->PortState;
    }
};
TRELM_ON_EACH_DRIVER(PortInfo);

TEST_P(PortInfo, FcoeInfoOfVersion2HasEveryFieldInPlace) {
    open_port(1);
    host.clear_calls();
    Guarded<TRELM_FCOE_INFO> info;
    info->Version = 2;
    Bytes expected = Bytes::initial(508).put(0, uint32_t{2});
    put_fcoe_info(expected);
    expected.put(460, uint32_t{50})
        .put(464, uint32_t{5})
        .put(468, native() ? 0xC0FFEE01U : 0U)
        .put(472, uint32_t{4});
    if (GetParam() == DriverKind::kron) expected.text(476, "08.37.30.00", 32);

    const LogCapture log(kSilent);
    EXPECT_EQ(TRELM_GetFcoeInfo(2, info.get()), TRELM_STATUS_OK);
    EXPECT_EQ(contents(info), expected.all());
    EXPECT_TRUE(info.guards_intact());
    EXPECT_TRUE(host.calls().empty()) << "the driver was asked for what discovery stored";
}

TEST_P(PortInfo, RecordsOfEarlierVersionsMayEndEarly) {
    open_port(1);
    for (const uint32_t version : {0U, 1U, 3U, 0xFFFFFFFFU}) {
        GuardedBytes fcoe(460);
        Bytes expected = Bytes::initial(460).put(0, version);
        memcpy(fcoe.data(), &version, sizeof version);
        put_fcoe_info(expected);
        EXPECT_EQ(TRELM_GetFcoeInfo(2, reinterpret_cast<TRELM_FCOE_INFO*>(fcoe.data())), TRELM_STATUS_OK);
        EXPECT_EQ(contents(fcoe), expected.all());
        EXPECT_TRUE(fcoe.guards_intact());

        GuardedBytes port(136);
        Bytes port_expected = Bytes::initial(136).put(0, version);
        memcpy(port.data(), &version, sizeof version);
        put_vnport_info(port_expected);
        EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, reinterpret_cast<TRELM_VNPORT_INFO*>(port.data())),
                  TRELM_STATUS_OK);
        EXPECT_EQ(contents(port), port_expected.all());
        EXPECT_TRUE(port.guards_intact());
    }
}

TEST_P(PortInfo, VNPortInfoOfAPhysicalPortHasEveryFieldInPlace) {
    open_port(1);
    Guarded<TRELM_VNPORT_INFO> info;
    info->Version = 2;
    Bytes expected =
        Bytes::initial(168).put(0, uint32_t{2}).text(136, "vmhba-of-the-second-port-32-byte", 32);
    put_vnport_info(expected);
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, info.get()), TRELM_STATUS_OK);
    EXPECT_EQ(contents(info), expected.all());
    EXPECT_TRUE(info.guards_intact());
}

TEST_P(PortInfo, AVirtualPortNamesItsParentAndWithoutFcfIsAskedForNone) {
    open_port(1);
    host.clear_calls();
    Guarded<TRELM_VNPORT_INFO> info;
    info->Version = 2;
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 300, info.get()), TRELM_STATUS_OK);
    const uint16_t default_speed = 4;
    const Bytes expected = Bytes::initial(168)
                               .put(0, uint32_t{2})
                               .wwn(4, kNodeName + 1)
                               .wwn(12, kVirtualName)
                               .wwn(20, kPortName)
                               .wwn(50, 0)
                               .copy(58, "\0\0\0\0\0\0", 6)
                               .put(80, uint32_t{0x00EF1235})
                               .put(84, uint32_t{0})
                               .put(88, uint16_t{0xBEEF})
                               .put(90, uint8_t{0})
                               .put(91, uint8_t{1})
                               .put(92, uint32_t{0})
                               .put(96, uint64_t{default_speed})
                               .wwn(104, 0)
                               .put(112, uint32_t{8})
                               .put(116, uint64_t{default_speed})
                               .put(124, uint32_t{2})
                               .put(128, uint32_t{0})
                               .put(132, uint32_t{300})
                               .text(136, "vmhba6", 32);
    EXPECT_EQ(contents(info), expected.all());
    EXPECT_EQ(host.count_calls(Operation::port_info), 1U);
    EXPECT_EQ(host.count_calls(Operation::fcf_info), 0U);
}

TEST_P(PortInfo, ARefreshBringsTheLiveFieldsUpToDateAndNoOthers) {
    open_port(1);
    host.edit([](hostsim::Model& model) {
        hostsim::PhysicalPort& port = model.port(0, 1);
        port.port_id = 0xABCDEF;
        port.speed = 1;
        port.supported_speed = 3;
        port.reported_target_count = 9;
        port.link_state = 7;
        // Of these the registry keeps what discovery found.
        port.vlan = 5;
        port.mtu = 6;
        port.wwnn = 7;
        port.fcfs.clear();
        port.reported_fcf_count = 1;
        port.hba_name = "changed";
        hostsim::hosts::add_fcf(port);
    });
    Guarded<TRELM_VNPORT_INFO> info;
    info->Version = 2;
    ASSERT_EQ(TRELM_GetVNPortInfo(2, 77, info.get()), TRELM_STATUS_OK);
    EXPECT_EQ(info->PortFCID, 0xABCDEFU);
    EXPECT_EQ(info->PortSpeed, 1U);
    EXPECT_EQ(info->PortSupportedSpeed, 3U);
    EXPECT_EQ(info->TgtCount, 9U);
    EXPECT_EQ(info->PortState, 4U);
    EXPECT_EQ(info->FabricVlan, 0x03EA);
    EXPECT_EQ(info->FcfCount, 2U);
    EXPECT_EQ(info->WWNN[7], 0xE0);
    EXPECT_EQ(memcmp(info->HbaName, "vmhba-of-the-second-port-32-byte", 32), 0);
}

TEST_P(PortInfo, PortStatesAreOnlineLinkDownOrOther) {
    open_port(1);
    EXPECT_EQ(port_state(2), 8U);
    EXPECT_EQ(port_state(7), 4U);
    for (const uint32_t other : {0U, 1U, 3U, 4U, 6U, 8U, 0xFFFFFFFFU}) {
        EXPECT_EQ(port_state(other), native() ? 0x80000000U : 4U) << other;
    }
}

TEST_P(PortInfo, FailuresComeInTheirOrderAndAreLogged) {
    open_port(1);
    Guarded<TRELM_FCOE_INFO> fcoe;
    Guarded<TRELM_VNPORT_INFO> info;
    LogCapture log;
    log.take();
    for (const uint32_t handle : {0U, 1U, 99U}) {
        EXPECT_EQ(TRELM_GetFcoeInfo(handle, nullptr), TRELM_STATUS_FAILED);
        const std::string fcoe_name = fmt::format("TRELM_GetFcoeInfo({})", handle);
        EXPECT_THAT(log.take_of("TRELM_GetFcoeInfo"),
                    ElementsAre(fcoe_name + ": entered.", fcoe_name + ": get pdb failed."));
        EXPECT_EQ(TRELM_GetVNPortInfo(handle, 0, nullptr), TRELM_STATUS_INVALID_PARAMETER);
        EXPECT_EQ(TRELM_GetVNPortInfo(handle, 0, info.get()), TRELM_STATUS_FAILED);
        const std::string info_name = fmt::format("TRELM_GetVNPortInfo({})", handle);
        EXPECT_THAT(log.take_of("TRELM_GetVNPortInfo"),
                    ElementsAre(info_name + ": entered.", info_name + ": invalid parameter.",
                                info_name + ": entered.", info_name + ": get pdb failed."));
    }
    EXPECT_EQ(TRELM_GetFcoeInfo(2, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_THAT(log.take(),
                ElementsAre("TRELM_GetFcoeInfo(2): entered.", "TRELM_GetFcoeInfo(2): invalid parameter."));
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 78, info.get()), TRELM_STATUS_FAILED)
        << "there is no port of this index";
    EXPECT_TRUE(fcoe.untouched());
    EXPECT_TRUE(info.untouched());
}

TEST_P(PortInfo, SuccessIsTracedStepByStep) {
    open_port(1);
    LogCapture log;
    log.take();
    Guarded<TRELM_VNPORT_INFO> info;
    Guarded<TRELM_FCOE_INFO> fcoe;
    TRELM_GetFcoeInfo(2, fcoe.get());
    EXPECT_THAT(log.take(),
                ElementsAre("TRELM_GetFcoeInfo(2): entered.", "TRELM_GetFcoeInfo(2): exiting, rval=0"));
    TRELM_GetVNPortInfo(2, 77, info.get());
    const std::string port = transport(GetParam()) + "get_port_info(2): ";
    const std::string fcf = transport(GetParam()) + "get_fcf_info(2): ";
    const bool kron = GetParam() == DriverKind::kron;
    Lines expected{"TRELM_GetVNPortInfo(2): entered."};
    if (kron) expected.push_back("TRELM_GetVNPortInfo(2): callin native port info.");
    expected.insert(expected.end(), {port + "entered.", port + (kron ? "exiting. ret=0" : "exiting.")});
    if (kron) expected.push_back("TRELM_GetVNPortInfo(2): callin native fcf info.");
    expected.insert(expected.end(), {fcf + "entered.", fcf + (native() ? "exiting. ret=0" : "exiting."),
                                     "TRELM_GetVNPortInfo(2): exiting, rval=0"});
    EXPECT_EQ(log.take(), expected);
}

TEST_P(PortInfo, DriverFailuresAreTranslatedAndLeaveTheRecord) {
    open_port(1);
    Guarded<TRELM_VNPORT_INFO> info;
    for (const Operation operation : {Operation::port_info, Operation::fcf_info}) {
        expect_failures_translated(host, operation, [&] { return TRELM_GetVNPortInfo(2, 77, info.get()); });
    }
    LogCapture log;
    for (const auto& [operation, text] :
         {std::pair{Operation::port_info, "port info failed"}, {Operation::fcf_info, "fcf info failed"}}) {
        Failure{.status = 3}.of(host, operation);
        errno = 77;
        TRELM_GetVNPortInfo(2, 77, info.get());
        EXPECT_EQ(log.take_of("TRELM_GetVNPortInfo").back(),
                  fmt::format("TRELM_GetVNPortInfo(2): {}, stat=3 errno=77", text));
        Failure{.error = EIO}.of(host, operation);
        TRELM_GetVNPortInfo(2, 77, info.get());
        EXPECT_EQ(log.take_of("TRELM_GetVNPortInfo").back(),
                  fmt::format("TRELM_GetVNPortInfo(2): {}, stat=0 errno=5", text));
    }
    EXPECT_TRUE(info.untouched());
}

// The next list of targets is to know the count, whatever became of the FCF.
TEST_P(PortInfo, AFailedFcfRequestKeepsTheRefreshedTargetCount) {
    open_port(1);
    const auto targets = [] {
        uint32_t count = 0;
        TRELM_TGT_INFO* none = nullptr;
        EXPECT_EQ(TRELM_GetTgtInfo(2, 77, &count, &none), TRELM_STATUS_INSUFFICIENT_BUFFER);
        return count;
    };
    Guarded<TRELM_VNPORT_INFO> info;
    second_port().reported_target_count = 41;
    Failure{.status = 2}.of(host, Operation::port_info);
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, info.get()), 0x60000002U);
    EXPECT_EQ(targets(), 0x01000002U);
    Failure{.status = 2}.of(host, Operation::fcf_info);
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, info.get()), 0x60000002U);
    EXPECT_EQ(targets(), 41U);
}

class PcieLink : public testing::TestWithParam<DriverKind> {};
TRELM_ON_EACH_DRIVER(PcieLink);

TEST_P(PcieLink, SpeedsAndWidthsAreConverted) {
    struct Row {
        uint32_t speed, width, public_speed, public_width;
    };
    const std::vector<Row> rows{{20, 1, 25, 3},
                                {21, 2, 50, 4},
                                {22, 4, 80, 5},
                                {22, 8, 80, 6},
                                {23, 16, 0, 8},
                                {19, 32, 0, 9},
                                {0, 12, 0, 0},
                                {8, 0, 0, 0},
                                {255, 3, 0, 0},
                                {80, 7, 0, 0},
                                {UINT32_MAX, UINT32_MAX, 0, 0}};
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 0);
    for (const Row& row : rows) {
        hostsim::Adapter& adapter = hostsim::hosts::add_adapter(model, GetParam(), 1);
        adapter.pcie_speed = row.speed;
        adapter.pcie_width = row.width;
    }
    const Loaded library(model);
    for (size_t i = 0; i < rows.size(); ++i) {
        TRELM_FCOE_INFO info{};
        info.Version = 2;
        EXPECT_EQ(TRELM_GetFcoeInfo(open_port(static_cast<uint32_t>(i)), &info), TRELM_STATUS_OK);
        EXPECT_EQ(info.PCIESpeed, rows[i].public_speed) << "speed " << rows[i].speed;
        EXPECT_EQ(info.PCIEWidth, rows[i].public_width) << "width " << rows[i].width;
    }
}

}  // namespace
