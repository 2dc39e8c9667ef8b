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

TEST_P(PortInfo, OfTheAdapterIsWhatDiscoveryStored) {
    const uint64_t device_ids[]{0x8080, 0x16A1, 0x168E};
    Bytes expected = Bytes::initial(508);
    expected.text(4, kFullText, 32)
        .text(36, native() ? "an adapter for tests" : "Calvexa 10G FCoE Adapter", 128)
        .text(164, "1.2.3.4", 32)
        .text(196, "Jan 02 2020", 32)
        .text(228, "drv-of-16-bytes!", 16)
        .copy(245, "\x02\x11\x22\x33\x44\x55", 6)
        .wwn(251, kNodeName)
        .wwn(259, kPortName)
        .text(424, "9.8.7", 32)
        .put(Field{244, 1, 1}, Field{267, 4, 0x00091234}, Field{400, 4, 0x000A03EA}, Field{404, 2, 0x81},
             Field{406, 2, 0x1E}, Field{408, 2, 5}, Field{410, 2, 0x1077},
             Field{412, 2, device_ids[static_cast<size_t>(GetParam())]}, Field{414, 2, 0x1234},
             Field{416, 2, 0x5678}, Field{418, 2, 0x0102}, Field{420, 2, 0x21},
             Field{422, 2, kron() ? 2U : 7U}, Field{456, 4, 0x01020304}, Field{460, 4, 50}, Field{464, 4, 5},
             Field{468, 4, native() ? 0xC0FFEE01 : 0}, Field{472, 4, 4});
    if (kron()) expected.text(476, "08.37.255.00", 32);
    host.clear_calls();
    expect_record<TRELM_FCOE_INFO>(expected, 460,
                                   [](TRELM_FCOE_INFO* info) { return TRELM_GetFcoeInfo(2, info); });
    EXPECT_TRUE(host.calls().empty()) << "the driver was asked for what discovery stored";
}

TEST_P(PortInfo, OfAPortIsLiveWhereItChangesAndAsDiscoveryFoundItWhereNot) {
    hostsim::PhysicalPort& port = host.model().port(0, 1);
    port.port_id = 0xABCDEF, port.speed = 0x8004, port.supported_speed = 0x8124;
    port.reported_target_count = 0x01000002;
    port.vlan = 5, port.mtu = 6, port.wwnn = 7, port.hba_name = "changed", port.reported_fcf_count = 1;
    Bytes expected = Bytes::initial(168);
    expected.wwn(4, kNodeName)
        .wwn(12, kPortName)
        .wwn(20, kPortName)
        .wwn(50, kFabricName)
        .copy(58, "\x06\x05\x04\x03\x02\x01", 6)
        .wwn(104, kSwitchName)
        .text(136, kHbaName, 32)
        .put(Field{80, 4, 0xABCDEF}, Field{84, 4, 0x0EFC12}, Field{88, 2, 0x03EA}, Field{90, 1, 200},
             Field{91, 1, 0}, Field{92, 4, 0x12345678}, Field{96, 8, 0x8004}, Field{112, 4, 8},
             Field{116, 8, 0x8124}, Field{124, 4, 0x01000002}, Field{128, 4, 2}, Field{132, 4, 77});
    expect_record<TRELM_VNPORT_INFO>(
        expected, 136, [](TRELM_VNPORT_INFO* info) { return TRELM_GetVNPortInfo(2, 77, info); });
    TRELM_VNPORT_INFO info{};
    for (const uint32_t state : {2U, 7U, 0U, 1U, 3U, 6U, 8U, 0xFFFFFFFFU}) {
        port.link_state = state;
        EXPECT_EQ(TRELM_GetVNPortInfo(2, 77, &info), TRELM_STATUS_OK);
        EXPECT_EQ(+info.PortState, state == 2 ? 8U : state == 7 || !native() ? 4U : 0x80000000U) << state;
    }
}

TEST_P(PortInfo, OfAVirtualPortNamesItsParentAndWithoutFcfAsksForNone) {
    host.clear_calls();
    TRELM_VNPORT_INFO info{};
    EXPECT_EQ(TRELM_GetVNPortInfo(2, 300, &info), TRELM_STATUS_OK);
    EXPECT_EQ(host.calls().size(), 1U);
    const Bytes names = Bytes(54).wwn(0, kNodeName + 1).wwn(8, kPortName + 1).wwn(16, kPortName);
    EXPECT_EQ(memcmp(info.WWNN, names.data(), 54), 0) << "and no fabric";
    EXPECT_EQ(info.FabricVlan + info.PortType * 0x10000, 0x1BEEF);
    EXPECT_EQ(info.FCMap + info.FcfCount + info.KeepAliveTimeout, 0U);
}

TEST_P(PortInfo, CountsArriveUnchangedEachAtItsPlace) {
    Bytes expected = Bytes::initial(244);
    for (size_t i = 0; i < 30; ++i) {
        const uint64_t value = 0xF000'0001'0000'0000 + 0x0101'0101 * i;
        host.model().port(0, 1).virtual_ports[0].counters[i].start = value;
        expected.put(4 + 8 * i, value);
    }
    host.tamper = [](Answer& answer) { memset(answer.payload.data() + 240, 0xEE, 272); };
    expect_record<TRELM_PORT_STATS>(
        expected, 244, [](TRELM_PORT_STATS* stats) { return TRELM_GetPortStats(2, 300, stats); });
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
