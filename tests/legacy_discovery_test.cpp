// Discovery of the legacy driver's ports: what is kept, dropped or passed over, in which order it ends up,
// and what a driver that answers badly can do.
#include <memory>

#include "support/port_calls.h"

namespace {

using namespace trelm::test;

class LegacyDiscovery : public testing::Test {
  protected:
    void start(hostsim::Model model) {
        host_.reset();
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
        host_ = std::make_unique<hostsim::Host>(std::move(model));
    }
    hostsim::Host& host() { return *host_; }
    // Discovers behind `before` ports that others found.
    uint32_t discover(uint32_t before = 0) {
        counter = before;
        const size_t descriptors = open_descriptors();
        const uint32_t result = trelm_find_all_instances("dorfc", &counter);
        EXPECT_EQ(open_descriptors(), descriptors);
        return result;
    }
    void TearDown() override {
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
    }

    std::unique_ptr<hostsim::Host> host_;
    uint32_t counter = 0;
};

TEST_F(LegacyDiscovery, FillsBothRecords) {
    hostsim::Model model = two_port_host(DriverKind::legacy);
    model.adapters[0].chip_revision = 7;
    model.adapters[0].management_firmware = 7;
    model.adapters[0].description = "what the driver says of itself";
    model.port(0, 1).port_number = 0x304;
    model.port(0, 1).host_no = 55;
    model.port(0, 1).link_state = 7;
    start(model);
    ASSERT_EQ(discover(10), 0U);
    EXPECT_EQ(counter, 16U);
    const std::vector<trelm_priv_db*> ports = registry();
    EXPECT_THAT(instances(), ElementsAre(0, 3, 5, 4, 2, 1))
        << "physical ports in front, virtual ones behind them";
    const trelm_hw_info& hw = *ports[1]->hw_info;
    EXPECT_STREQ(hw.phys_path, "/dev/char/vmkdriver/dorfc");
    EXPECT_STREQ(hw.model_desc, "Calvexa 10G FCoE Adapter");
    EXPECT_STREQ(hw.manufacturer, "Calvexa");
    EXPECT_STREQ(hw.driver_name, "dorfc");
    EXPECT_EQ(hw.oshandle, -1);
    EXPECT_EQ(hw.native_driver, 0);
    EXPECT_EQ(hw.driver_loaded, 1);
    EXPECT_EQ(hw.phy_port_number, 4);
    EXPECT_EQ(hw.npiv_count, 2U);
    EXPECT_EQ(hw.chip_rev_id, 0U);
    EXPECT_EQ(hw.mfw_version, 0U);
    EXPECT_EQ(hw.pci_func, 1);
    EXPECT_EQ(ports[0]->host_no, 2U);
    EXPECT_EQ(ports[1]->host_no, 55U);
    EXPECT_EQ(ports[0]->port_state, 8U) << "the link-state files tell";
    EXPECT_EQ(ports[1]->port_state, 4U);
    EXPECT_EQ(ports[0]->fcf_cnt, 2U);
    EXPECT_NE(ports[0]->hw_info, &hw) << "each physical port has a record of its own";
    for (const size_t virtual_port : {2U, 3U}) {
        EXPECT_EQ(ports[virtual_port]->hw_info, &hw);
        EXPECT_EQ(ports[virtual_port]->parent, ports[1]);
    }
}

TEST_F(LegacyDiscovery, TwoPortsAtOneLocationHaveARecordEach) {
    hostsim::Model model = hostsim::hosts::legacy_ports(2, 1);
    model.port(0, 1).pci_function = 0;
    start(model);
    ASSERT_EQ(discover(), 0U);
    const std::vector<trelm_priv_db*> ports = registry();
    ASSERT_EQ(ports.size(), 4U);
    EXPECT_NE(ports[0]->hw_info, ports[1]->hw_info);
    for (const trelm_priv_db* pdb : ports) {
        if (pdb->port_type != FC_PORTTYPE_NPIV) continue;
        EXPECT_EQ(pdb->parent, ports[0]) << "the first at the location";
    }
}

TEST_F(LegacyDiscovery, DropsDevicesThatItDoesNotKnow) {
    hostsim::Model model = hostsim::hosts::legacy_ports(0);
    const std::vector<uint32_t> kept = add_devices(model, DriverKind::legacy);
    start(model);
    Failure{.status = 1}.of(host(), Operation::port_info);  // so that no link state is read a hundred times
    ASSERT_EQ(discover(), 0U);
    EXPECT_THAT(instances(), testing::UnorderedElementsAreArray(kept));
    EXPECT_EQ(counter, 12U);
    EXPECT_EQ(host().count_calls(Operation::hostno), 100U) << "a dropped port counts as one of the driver's";
    EXPECT_EQ(trelm_phy_info->count, 12U);
}

// A virtual port is never dropped, and its device does not matter.
TEST_F(LegacyDiscovery, KeepsAVirtualPortWithoutItsPhysicalPortAlone) {
    hostsim::Model model = hostsim::hosts::legacy_ports(1, 1);
    model.adapters[0].device_id = 0x1657;
    hostsim::hosts::add_adapter(model, DriverKind::legacy, 1);
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_EQ(counter, 2U);
    EXPECT_THAT(instances(), ElementsAre(2, 1)) << "no parent was found, so the next port goes to the front";
    EXPECT_EQ(registry()[1]->hw_info, nullptr);
    EXPECT_EQ(registry()[1]->parent, nullptr);
}

TEST_F(LegacyDiscovery, AFailedHostNumberIsPassedOverAndMadeUpFor) {
    start(hostsim::hosts::legacy_ports(4));
    host().model().driver(DriverKind::legacy).reported_port_count = 3;
    host().inject(fault(Operation::hostno, {.status = 1}, 2));
    LogCapture log;
    log.take();
    ASSERT_EQ(discover(), 0U);
    EXPECT_THAT(instances(), ElementsAre(2, 3, 0))
        << "three ports were promised, and a record that goes leaves the cursor behind the last";
    EXPECT_EQ(counter, 3U);
    EXPECT_EQ(log.take_of("trelm_find_all_instances"),
              lines("trelm_find_all_instances: ", {"entered for dorfc", "Got hba_count=3", "host no failed.",
                                                   "found 3 instances, exiting ret=0"}));
}

TEST_F(LegacyDiscovery, AFailedPortInformationLeavesAPhysicalPortWithoutNames) {
    start(hostsim::hosts::legacy_ports(2, 1));
    host().inject(fault(Operation::port_info, {.status = 0x2A}, 2));
    LogCapture log(kErrorLines);
    errno = 17;
    log.take();
    ASSERT_EQ(discover(), 0U);
    EXPECT_EQ(counter, 4U);
    EXPECT_THAT(
        log.take_of("trelm_find_all_instances"),
        ElementsAre(testing::MatchesRegex("trelm_find_all_instances\\([0-9A-F]+h?\\): get port info ioctl "
                                          "failed\\. stat=2Ah errno=[0-9A-F]+h?")));
    const std::vector<trelm_priv_db*> ports = registry();
    const auto nameless =
        std::find_if(ports.begin(), ports.end(), [](auto* pdb) { return pdb->drvr_inst == 1; });
    ASSERT_NE(nameless, ports.end());
    EXPECT_EQ((*nameless)->port_type, 0);
    EXPECT_EQ((*nameless)->wwpn, 0U);
    EXPECT_EQ((*nameless)->port_state, 0U);
    ASSERT_NE((*nameless)->hw_info, nullptr);
    EXPECT_STREQ((*nameless)->hw_info->model_name, "");
    EXPECT_STREQ((*nameless)->hw_info->model_desc, "Calvexa 10G FCoE Adapter");
}

TEST_F(LegacyDiscovery, APortWithoutPciInformationStaysAndHarmsNothing) {
    hostsim::Model model = hostsim::hosts::legacy_ports(3, 1);
    hostsim::Fault silent = fault(Operation::pci_info, {.error = EIO});
    silent.port = "port0.0";
    silent.count = hostsim::Fault::kAlways;
    model.faults.push_back(silent);
    const Loaded library(model);
    LogCapture log;
    TRELM_FreeLibrary();
    log.take();
    ASSERT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    EXPECT_THAT(log.take_text(),
                testing::ContainsRegex("trelm_find_all_instances\\([0-9A-F]+h?\\): get pci info ioctl "
                                       "failed\\. stat=0 errno=5\n"));
    uint32_t count = 0, handle = 0;
    TRELM_GetPortCount(&count);
    EXPECT_EQ(count, 3U);
    uint32_t bare = 0;
    while (bare < 3 && trelm_get_pdb_from_user_instance(bare)->hw_info) ++bare;
    ASSERT_LT(bare, 3U) << "the port keeps an instance number";
    EXPECT_EQ(TRELM_OpenAdapter(bare, &handle), TRELM_STATUS_FAILED);
    for (uint32_t instance = 0; instance < 3; ++instance) {
        if (instance == bare) continue;
        EXPECT_EQ(open_port(instance), instance + 1);
        TRELM_VNPORT_INFO info{};
        EXPECT_EQ(TRELM_GetVNPortInfo(instance + 1, 0, &info), TRELM_STATUS_OK);
        EXPECT_EQ(TRELM_GetVNPortInfo(instance + 1, 9, &info), TRELM_STATUS_FAILED);
        EXPECT_EQ(TRELM_CloseAdapter(instance + 1), TRELM_STATUS_OK);
    }
    EXPECT_EQ(TRELM_CloseAdapter(bare + 1), TRELM_STATUS_FAILED);
}

TEST_F(LegacyDiscovery, ACountWithoutPortsEndsIt) {
    struct Row {
        int64_t count;
        size_t asked;  // host numbers
        uint32_t found;
    };
    // Failures in a row bound a count that is too large.
    for (const Row row : {Row{0, 0, 0},
                          {-1, 0, 0},
                          {-2147483648LL, 0, 0},
                          {1, 1, 1},
                          {5, 2 + 256, 2},
                          {2147483647, 2 + 256, 2}}) {
        SCOPED_TRACE(row.count);
        hostsim::Model model = hostsim::hosts::legacy_ports(2);
        model.driver(DriverKind::legacy).reported_port_count = row.count;
        start(model);
        EXPECT_EQ(discover(3), 0U);
        EXPECT_EQ(counter, 3 + row.found);
        EXPECT_EQ(host().count_calls(Operation::hostno), row.asked);
    }
    // A success in between starts the count of failures again, and the last index is 65535.
    start(hostsim::hosts::legacy_ports(1));
    host().model().driver(DriverKind::legacy).reported_port_count = 2147483647;
    host().tamper = [](Answer& answer) {
        if (answer.call.operation != Operation::hostno) return;
        answer.status = answer.call.port % 256 == 0 ? 0 : 1;
    };
    EXPECT_EQ(discover(), 0U);
    EXPECT_EQ(counter, 256U);
    EXPECT_EQ(calls_of(host(), Operation::hostno).back().port, 65535U);
}

TEST_F(LegacyDiscovery, ANodeOrCountThatFailsEndsIt) {
    struct Row {
        const char* name;
        std::function<void(hostsim::Model&)> spoil;
        std::vector<std::string> lines;
    };
    using Presence = hostsim::Driver::Presence;
    const std::string own = "trelm_find_all_instances: ";
    const std::vector<Row> rows{
        {"no node",
         [](auto& model) { model.driver(DriverKind::legacy).presence = Presence::absent; },
         {"trelm_charnode_exist: file open failed.", own + "not found: /dev/char/vmkdriver/dorfc"}},
        {"no device",
         [](auto& model) { model.driver(DriverKind::legacy).presence = Presence::no_device; },
         {"trelm_charnode_exist: file not char node.", own + "not found: /dev/char/vmkdriver/dorfc"}},
        {"no open",
         [](auto& model) { model.faults.push_back(fault(Operation::open, {.error = EBUSY}, 2)); },
         {own + "char device open error."}},
        {"no count",
         [](auto& model) { model.faults.push_back(fault(Operation::hba_count, {.status = 1})); },
         {"trelm_get_hba_count: Get HBA Count ioctl failed, ioctl_status=1", own + "hba count failed."}}};
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        hostsim::Model model = hostsim::hosts::legacy_ports(1);
        row.spoil(model);
        start(model);
        LogCapture log(kErrorLines);
        EXPECT_EQ(discover(5), 1U);
        EXPECT_EQ(counter, 5U);
        EXPECT_EQ(log.take(), row.lines);
        EXPECT_EQ(trelm_priv_database, nullptr);
    }
}

// Texts without an end, numbers without sense: nothing of it may reach beyond its field.
TEST_F(LegacyDiscovery, TextsWithoutAnEndStayInTheirFields) {
    start(hostsim::hosts::legacy_ports(1));
    host().tamper = [](Answer& answer) {
        if (answer.call.operation != Operation::port_info) return;
        std::fill(answer.payload.begin(), answer.payload.end(), uint8_t{'x'});
        answer.as<dorfc_port_info>().port_type = FC_PORTTYPE_NPORT;
    };
    LogCapture log;
    ASSERT_EQ(discover(), 0U);
    const Lines lines = log.take();
    EXPECT_THAT(lines, testing::Contains(" model_name: " + std::string(32, 'x')));
    EXPECT_THAT(lines, testing::Contains(" driver_name: " + std::string(16, 'x')));
    EXPECT_THAT(lines, testing::Contains(" model_desc: Calvexa 10G FCoE Adapter"));
    TRELM_FCOE_INFO info{};
    trelm_priv_db* pdb = registry().at(0);
    pdb->hw_info->apihandle = 1;
    ASSERT_EQ(TRELM_GetFcoeInfo(1, &info), TRELM_STATUS_OK);
    EXPECT_THAT(info.ModelName, testing::Each('x'));
    EXPECT_THAT(info.FWVersion, testing::Each('x'));
    EXPECT_EQ(info.DriverLoaded, 1);
}

}  // namespace
