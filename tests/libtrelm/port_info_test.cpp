// TRELM_GetFcoeInfo, TRELM_GetVNPortInfo and TRELM_GetPortStats: every byte of their records over every
// driver, and which values a refresh keeps.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

constexpr uint64_t kNodeName = 0x2000'001B'21AB'CDE0;
constexpr uint64_t kPortName = 0x2001'001B'21AB'CDE0;
constexpr uint64_t kSwitchName = 0x1000'0005'3312'3456;
constexpr uint64_t kFabricName = 0x2000'0005'3378'9ABC;
constexpr char kFullText[] = "a model name that fills its room";
constexpr char kHbaName[] = "vmhba-of-the-second-port-32-byte";

// A host whose second port has a distinct value in every field.
hostsim::Model described(DriverKind kind) {
    hostsim::Model model = two_port_host(kind);
    hostsim::Driver& driver = model.driver(kind);
    driver.name = "drv-of-16-bytes!", driver.version = "1.2.3.4", driver.date = "Jan 02 2020";
    driver.loaded = false;  // the library derives this from the answer
    hostsim::Adapter& adapter = model.adapters[0];
    adapter.model = kFullText, adapter.description = "an adapter for tests", adapter.pci_device = 0x1E;
    adapter.firmware_version = "9.8.7", adapter.management_firmware = 0x0825FF00, adapter.revision = 0x21;
    adapter.subsystem_vendor_id = 0x1234, adapter.subsystem_id = 0x5678, adapter.pci_domain = 0x0102;
    adapter.pci_bus = 0x81, adapter.chip_revision = 0xC0FFEE01;
    adapter.pcie_speed = 21, adapter.pcie_width = 4;
    hostsim::PhysicalPort& port = adapter.ports[1];
    port.pci_function = 5, port.port_number = 0x107, port.npiv_index = 77, port.hba_name = kHbaName;
    port.reported_npiv_count = 0x01020304, port.mac = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
    port.wwnn = kNodeName, port.wwpn = kPortName, port.mtu = 0x00091234, port.vlan = 0x000A03EA;
    hostsim::Fcf& fcf = port.fcfs[0];
    fcf.switch_name = kSwitchName, fcf.fabric_name = kFabricName, fcf.fc_map = 0x0EFC12, fcf.priority = 200;
    fcf.fcf_mac = {6, 5, 4, 3, 2, 1}, fcf.fcoe_mac = {9, 9, 9, 9, 9, 9}, fcf.keep_alive_timeout = 0x12345678;
    hostsim::Port& npiv = port.virtual_ports[0];
    npiv.npiv_index = 300, npiv.wwnn = kNodeName + 1, npiv.wwpn = kPortName + 1, npiv.vlan = 0xBEEF;
    npiv.fcfs.clear();
    return model;
}

class PortInfo : public OnEachDriver {
  protected:
    PortInfo() : OnEachDriver(described(GetParam())) { open_port(1); }

    bool native() const { return GetParam() != DriverKind::legacy; }
    bool kron() const { return GetParam() == DriverKind::kron; }

    // Calls with records of every version. Records of versions other than 2 are shorter.
    template <typename Record>
    static void expect_record(Bytes expected, size_t early, const std::function<uint32_t(Record*)>& call) {
        for (const uint32_t version : {2U, 0U, 1U, 3U, 0xFFFFFFFFU}) {
            SCOPED_TRACE(version);
            if (version != 2) expected.resize(early);
            expected.put(0, version);
            GuardedBytes record(expected.size());
            memcpy(record.data(), &version, sizeof version);
            EXPECT_EQ(call(reinterpret_cast<Record*>(record.data())), TRELM_STATUS_OK);
            EXPECT_EQ(contents(record), expected.all());
            EXPECT_TRUE(record.guards_intact());
        }
    }
};
TRELM_ON_EACH_DRIVER(PortInfo);

TEST_P(PortInfo, OfTheAdapterIsThatOfTheLoad) {
    const uint16_t device_ids[]{0x8080, 0x16A1, 0x168E};
    Bytes expected = Bytes::initial(sizeof(TRELM_FCOE_INFO));
    auto& info = expected.as<TRELM_FCOE_INFO>();
    set_text(info.ModelName, kFullText);
    set_text(info.ModelDesc, native() ? "an adapter for tests" : "Calvexa 10G FCoE Adapter");
    set_text(info.DriverVersion, "1.2.3.4");
    set_text(info.DriverDate, "Jan 02 2020");
    set_text(info.DriverName, "drv-of-16-bytes!");
    set_text(info.MAC, "\x02\x11\x22\x33\x44\x55");
    set_text(info.FWVersion, "9.8.7");
    set_wwn(info.WWNN, kNodeName);
    set_wwn(info.WWPN, kPortName);
    info.DriverLoaded = 1, info.MTU = 0x00091234, info.VlanID = 0x000A03EA;
    info.PciDomainNum = 0x0102, info.PciBusNum = 0x81, info.PciDeviceNum = 0x1E, info.PciFunctionNum = 5;
    info.VendorID = 0x1077, info.DeviceID = device_ids[static_cast<size_t>(GetParam())];
    info.SubVendorID = 0x1234, info.SubSystemID = 0x5678, info.PciRevision = 0x21;
    info.PhyPortNum = kron() ? 2 : 7, info.NpivCount = 0x01020304;
    info.PCIESpeed = 50, info.PCIEWidth = 5, info.ChipRevId = native() ? 0xC0FFEE01 : 0, info.MediaType = 4;
    if (kron()) set_text(info.MFWVersion, "08.37.255.00");
    host.clear_calls();
    expect_record<TRELM_FCOE_INFO>(expected, offsetof(TRELM_FCOE_INFO, PCIESpeed),
                                   [](TRELM_FCOE_INFO* filled) { return TRELM_GetFcoeInfo(2, filled); });
    EXPECT_TRUE(host.calls().empty()) << "the driver was asked for what discovery stored";
}

TEST_P(PortInfo, OfAPortHasLiveFieldsAndFieldsOfTheLoad) {
    hostsim::PhysicalPort& port = host.model().port(0, 1);
    port.port_id = 0xABCDEF, port.speed = 0x8004, port.supported_speed = 0x8124;
    port.reported_target_count = 0x01000002;
    port.vlan = 5, port.mtu = 6, port.wwnn = 7, port.hba_name = "changed", port.reported_fcf_count = 1;
    Bytes expected = Bytes::initial(sizeof(TRELM_VNPORT_INFO));
    auto& record = expected.as<TRELM_VNPORT_INFO>();
    set_wwn(record.WWNN, kNodeName);
    set_wwn(record.WWPN, kPortName);
    set_wwn(record.ParentWWPN, kPortName);
    set_wwn(record.FabricName, kFabricName);
    set_wwn(record.SwitchName, kSwitchName);
    set_text(record.FcfMAC, "\x06\x05\x04\x03\x02\x01");
    set_text(record.HbaName, kHbaName);
    record.PortFCID = 0xABCDEF, record.PortType = TRELM_PORTTYPE_PHYSICAL, record.PortState = 8;
    record.FCMap = 0x0EFC12, record.FabricVlan = 0x03EA, record.FabricPriority = 200;
    record.KeepAliveTimeout = 0x12345678, record.PortSpeed = 0x8004, record.PortSupportedSpeed = 0x8124;
    record.TgtCount = 0x01000002, record.FcfCount = 2, record.NpivIndex = 77;
    expect_record<TRELM_VNPORT_INFO>(
        expected, offsetof(TRELM_VNPORT_INFO, HbaName),
        [](TRELM_VNPORT_INFO* filled) { return TRELM_GetVNPortInfo(2, 77, filled); });
    EXPECT_EQ(trelm_get_pdb_from_user_handle(2)->port_id, 0xABCDEFU) << "the registry keeps the answer";
    TRELM_VNPORT_INFO info{};
    for (const uint32_t state : {2U, 7U, 0U, 1U, 3U, 6U, 8U, 0xFFFFFFFFU}) {
        port.link_state = state;
        EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, &info), TRELM_STATUS_OK);
        EXPECT_EQ(+info.PortState, state == 2 ? 8U : state == 7 || !native() ? 4U : 0x80000000U) << state;
    }
}

TEST_P(PortInfo, ThatFailsLeavesTheRecordAndTheLastTargetCount) {
    uint32_t reported = 5, count = 0;
    for (const Operation failing : {Operation::fcf_info, Operation::port_info}) {
        host.model().port(0, 1).reported_target_count = std::exchange(reported, 9);
        DriverFailure{.status = 5}.of(host, failing);
        TRELM_VNPORT_INFO info{};
        info.Version = 2;
        const TRELM_VNPORT_INFO before = info;
        EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, &info), 0x60000005U);
        EXPECT_EQ(memcmp(&info, &before, sizeof info), 0);
        TRELM_TGT_INFO* nowhere = nullptr;
        EXPECT_EQ(TRELM_GetTgtInfo(2, 77, &count, &nowhere), TRELM_STATUS_INSUFFICIENT_BUFFER);
        EXPECT_EQ(count, 5U) << "port information came, then the FCF request failed; nothing came since";
        count = 0;
    }
}

TEST_P(PortInfo, RequestsHoldNothingOfEarlierAnswers) {
    std::array<TRELM_TGT_INFO, 2> targets{};
    TRELM_TGT_INFO* to_targets = targets.data();
    host.clear_calls();
    for (int repeat = 0; repeat < 2; ++repeat) {
        TRELM_VNPORT_INFO port{};
        TRELM_PORT_STATS stats{};
        uint32_t count = 2;
        EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, &port), TRELM_STATUS_OK);
        EXPECT_EQ(TRELM_GetPortStats(2, 77, &stats), TRELM_STATUS_OK);
        EXPECT_EQ(TRELM_GetTgtInfo(2, 77, &count, &to_targets), TRELM_STATUS_OK);
    }
    for (const hostsim::DriverCall& call : host.calls()) {
        if (call.operation == Operation::scsi) continue;
        const ptrdiff_t host_number = native() ? 4 : 0, header = native() ? 8 : 0;
        std::vector<uint8_t> payload(call.payload.begin() + host_number, call.payload.end());
        if (call.operation == Operation::tgt_info)
            std::fill_n(payload.begin() + header - host_number + offsetof(dorfc_tgt_info, scsi_tgt_num), 4,
                        uint8_t{0});
        EXPECT_THAT(payload, Each(0)) << hostsim::kOperationNames.at(static_cast<size_t>(call.operation));
    }
}

TEST_P(PortInfo, OfAVirtualPortNamesItsParentAndAsksForNoMissingFcf) {
    host.clear_calls();
    TRELM_VNPORT_INFO info{};
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 300, &info), TRELM_STATUS_OK);
    EXPECT_EQ(host.calls().size(), 1U);
    TRELM_VNPORT_INFO names{};  // without a fabric
    set_wwn(names.WWNN, kNodeName + 1);
    set_wwn(names.WWPN, kPortName + 1);
    set_wwn(names.ParentWWPN, kPortName);
    constexpr size_t kNames = offsetof(TRELM_VNPORT_INFO, WWNN);
    constexpr size_t kEnd = offsetof(TRELM_VNPORT_INFO, PortFCID);
    EXPECT_EQ(memcmp(info.WWNN, names.WWNN, kEnd - kNames), 0);
    EXPECT_EQ(+info.FabricVlan, 0xBEEF);
    EXPECT_EQ(info.PortType, TRELM_PORTTYPE_NPIV);
    EXPECT_THAT((std::array{+info.FCMap, +info.FcfCount, +info.KeepAliveTimeout}), Each(0U));
}

TEST_P(PortInfo, PassesEveryCounterOnUnchanged) {
    constexpr size_t kFirst = offsetof(TRELM_PORT_STATS, RxFCoEFrames);
    Bytes expected = Bytes::initial(sizeof(TRELM_PORT_STATS));
    for (size_t i = 0; i < 30; ++i) {
        const uint64_t value = 0xF000'0001'0000'0000 + 0x0101'0101 * i;
        host.model().port(0, 1).virtual_ports[0].counters[i].start = value;
        expected.put(kFirst + sizeof value * i, value);
    }
    host.tamper = [](DriverAnswer& answer) {
        memset(answer.as<dorfc_port_stats>().reserved, 0xEE, sizeof(dorfc_port_stats::reserved));
    };
    expect_record<TRELM_PORT_STATS>(expected, sizeof(TRELM_PORT_STATS), [](TRELM_PORT_STATS* stats) {
        return TRELM_GetPortStats(2, 300, stats);
    });
}

TEST_P(PortInfo, PcieSpeedsAndWidthsAreConverted) {
    for (const auto& [speed, width, converted] : {std::tuple{20U, 1U, std::pair{25U, 3U}},
                                                  {21, 2, {50, 4}},
                                                  {22, 8, {80, 6}},
                                                  {23, 16, {0, 8}},
                                                  {19, 32, {0, 9}},
                                                  {0, 12, {0, 0}}}) {
        TRELM_FreeLibrary();
        host.model().adapters[0].pcie_speed = speed, host.model().adapters[0].pcie_width = width;
        TRELM_LoadLibrary();
        TRELM_FCOE_INFO info{};
        info.Version = 2;
        EXPECT_EQ(TRELM_GetFcoeInfo(open_port(), &info), TRELM_STATUS_OK);
        EXPECT_EQ(std::pair(+info.PCIESpeed, +info.PCIEWidth), converted);
    }
}

}  // namespace
