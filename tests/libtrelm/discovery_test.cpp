// Discovery of the ports of each driver: which ports are kept, dropped or passed over, their order, and the
// effects of wrong answers of a driver. The golden logs have ports whose information is missing.

#include "support/failing_allocation.h"
#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

constexpr uint32_t kBefore = 5;  // ports that were found before

class Discovery : public testing::TestWithParam<DriverKind> {
  protected:
    ~Discovery() override { forget(); }

    static void forget() {
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
    }
    void start(hostsim::Model model) {
        forget();
        host_.reset();
        host_ = std::make_unique<hostsim::Host>(std::move(model));
    }
    hostsim::Host& host() { return *host_; }
    // Native discoveries return the number of their ports. The legacy one adds to the counter.
    uint32_t discover() {
        const size_t descriptors = open_descriptors();
        counter = kBefore;
        const uint32_t result = kron()   ? trelmnt_find_all_instances("not used", &counter)
                                : native ? trelm_pyxnt_find_all_instances("not used", &counter)
                                         : trelm_find_all_instances("dorfc", &counter);
        EXPECT_EQ(open_descriptors(), descriptors);
        return result;
    }
    void expect_found(uint32_t ports) {
        EXPECT_EQ(discover(), 0U);
        EXPECT_EQ(counter, native ? ports : kBefore + ports);
        EXPECT_EQ(registry().size(), ports);
    }
    bool kron() const { return GetParam() == DriverKind::kron; }

    const bool native = GetParam() != DriverKind::legacy;
    std::unique_ptr<hostsim::Host> host_;
    uint32_t counter = 0;
};
TRELM_ON_EACH_DRIVER(Discovery);

TEST_P(Discovery, FillsBothRecordsAndPutsPhysicalPortsInFront) {
    hostsim::Model model = two_port_host(GetParam());
    hostsim::Adapter& adapter = model.adapters[0];
    adapter.serial_number = "all-of-the-32-bytes-of-a-serial#";
    adapter.subsystem_id = 0x10, adapter.ports[1].pci_function = 6;
    model.port(0, 1).port_number = 0x204, model.port(0, 1).link_state = 7;
    start(model);
    expect_found(6);
    // A virtual port looks up its parent, and the next record goes after the parent. So physical ports are in
    // front.
    ASSERT_THAT(instances(), ElementsAre(0, 3, 5, 4, 2, 1));
    const std::vector<trelm_priv_db*> ports = registry();
    const trelm_hw_info& hw = *ports[1]->hw_info;
    EXPECT_EQ(std::string(hw.serial_num, 32), adapter.serial_number);
    EXPECT_EQ(hw.native_driver, native);
    EXPECT_EQ(hw.phy_port_number, kron() ? 3 : 4) << "function 6 on a quad-port adapter";
    EXPECT_EQ(ports[0]->port_state, native ? 2U : 8U) << "link-state files tell of the legacy driver's";
    EXPECT_EQ(ports[1]->port_state, native ? 7U : 4U);
    for (const auto& [port, parent] : {std::pair{0, -1}, {1, -1}, {2, 1}, {3, 1}, {5, 0}}) {
        EXPECT_EQ(ports[port]->parent, parent < 0 ? nullptr : ports[parent]);
        EXPECT_EQ(ports[port]->hw_info, ports[parent < 0 ? port : parent]->hw_info);
    }
    EXPECT_NE(ports[0]->hw_info, &hw) << "each physical port has a record of its own";
}

TEST_P(Discovery, DropsPhysicalPortsOfUnknownDevices) {
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 0);
    const std::set<int> known{0x165C, 0x1662, 0x1663, 0x168A, 0x168E, 0x16A1,
                              0x16A2, 0x16A4, 0x16A5, 0x16AE, 0x8080, 0x8180};
    std::vector<uint32_t> kept;
    for (int device = 0x1650; device<0x8190; device += device> 0x8000 ? 16 : 1) {
        if (device == 0x16B0) device = 0x8070;
        if (known.contains(device)) kept.push_back(static_cast<uint32_t>(model.adapters.size()));
        hostsim::Adapter& adapter = hostsim::hosts::add_adapter(model, GetParam(), 1);
        adapter.device_id = static_cast<uint16_t>(device),
        adapter.vendor_id = 0xABCD;  // the vendor does not matter
    }
    start(model);
    if (!native)
        DriverFailure{.status = 1}.of(host(), Operation::port_info);  // then no link state is read either
    expect_found(12);
    EXPECT_THAT(instances(), testing::UnorderedElementsAreArray(kept));
    EXPECT_EQ(trelm_phy_info->count, 12U);
}

// One virtual port comes before its physical port, and two physical ports have the same location.
TEST_P(Discovery, AttachesAVirtualPortToTheFirstPhysicalPortAtItsLocation) {
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 2, 1);
    model.port(0, 0).pci_function = model.port(0, 1).pci_function = 2;
    model.driver(GetParam()).order = {"port0.0/1", "port0.0", "port0.1", "port0.1/1"};
    start(model);
    expect_found(4);
    EXPECT_THAT(instances(), ElementsAre(1, 2, 3, 0)) << "to the front where nothing was found";
    const std::vector<trelm_priv_db*> ports = registry();
    EXPECT_NE(ports[1]->hw_info, ports[0]->hw_info);
    EXPECT_EQ(ports[2]->hw_info, ports[0]->hw_info);
    EXPECT_EQ(ports[2]->parent, ports[0]);
    EXPECT_TRUE(!ports[3]->hw_info && !ports[3]->parent);
    EXPECT_EQ(ports[1]->hw_info->phy_port_number, kron() ? 1 : 2) << "function 2 on a dual-port adapter";
}

// The port count of the pyx driver is unsigned, so a negative number is a large one.
TEST_P(Discovery, BoundsANonsensicalPortCount) {
    using Asked = std::array<uint32_t, 3>;  // requests for host numbers, by kind of driver
    for (const auto& [count, asked_for] : {std::pair<int64_t, Asked>{0, {0, 0, 0}},
                                           {-1, {0, 65536, 0}},
                                           {1, {1, 1, 1}},
                                           {5, {5, 5, 2 + 256}},
                                           {2147483647, {65536, 65536, 2 + 256}}}) {
        SCOPED_TRACE(count);
        const uint32_t asked = asked_for.at(static_cast<size_t>(GetParam()));
        hostsim::Model model = hostsim::hosts::ports(GetParam(), 2);
        model.driver(GetParam()).reported_port_count = static_cast<uint32_t>(count);
        start(model);
        expect_found(std::min(asked, 2U));
        EXPECT_EQ(host().count_calls(Operation::hostno), asked);
    }
    forget();
    host().tamper = [](DriverAnswer& answer) {  // a success resets the count of failures in a row
        if (answer.call.operation == Operation::hostno) answer.status = answer.call.port % 256 != 0;
    };
    expect_found(native ? 1 : 256);
    EXPECT_EQ(calls_of(host(), Operation::hostno).back().port, 65535U);
    if (!native) return;  // link-state files take time
    start(hostsim::hosts::ports(GetParam(), 300));
    expect_found(300);
}

TEST(LegacyDiscovery, UsesNothingOfARefusedAnswer) {
    hostsim::Host host(hostsim::hosts::legacy_ports(1));
    host.tamper = [](DriverAnswer& answer) {
        if (answer.call.operation != Operation::port_info) return;
        answer.status = 42;
        std::fill(answer.payload.begin(), answer.payload.end(), 'x');
    };
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    EXPECT_STREQ(registry().at(0)->hw_info->model_name, "");
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
}

// If either list cannot grow, no port of the legacy driver remains beside the ports of the kron driver.
TEST(LegacyDiscovery, LeavesNothingBehindWhereMemoryRunsOut) {
    hostsim::Model model = hostsim::hosts::legacy_ports(4, 1);
    hostsim::hosts::add_adapter(model, DriverKind::kron, 2);
    const hostsim::Host host(model);
    for (const size_t size : {sizeof(trelm_priv_db), sizeof(trelm_hw_info)}) {
        const FailingAllocation failing(size, 2);
        EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
        EXPECT_TRUE(registry().size() == 2 && trelm_phy_info->count == 2);
        EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    }
}

}  // namespace
