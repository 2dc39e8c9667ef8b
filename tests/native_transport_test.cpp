// The two native transports, called directly: what the drivers are asked and how, what discovery makes of
// their answers, and how each request ends. One body for both; where they differ the test says how.
#include <gmock/gmock.h>

#include <memory>

#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;
using hostsim::Answer;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::ElementsAre;

// A transport's functions, so that one test calls either.
struct Functions {
    decltype(&trelmnt_find_all_instances) find_all;
    decltype(&trelmnt_open_adapter) open;
    decltype(&trelmnt_close_adapter) close;
    uint32_t (*port_info)(trelm_priv_db*, void*, uint32_t*);
    decltype(&trelmnt_get_port_stats) port_stats;
    decltype(&trelmnt_get_tgt_info) tgt_info;
    decltype(&trelmnt_get_fcf_info) fcf_info;
    decltype(&trelmnt_send_scsi_cmd) send_scsi;
};
const Functions kKron{trelmnt_find_all_instances,
                      trelmnt_open_adapter,
                      trelmnt_close_adapter,
                      [](trelm_priv_db* pdb, void* info, uint32_t* stat) {
                          return trelmnt_get_port_info(pdb, static_cast<kronfc_port_info*>(info), stat);
                      },
                      trelmnt_get_port_stats,
                      trelmnt_get_tgt_info,
                      trelmnt_get_fcf_info,
                      trelmnt_send_scsi_cmd};
const Functions kPyx{trelm_pyxnt_find_all_instances,
                     trelm_pyxnt_open_adapter,
                     trelm_pyxnt_close_adapter,
                     [](trelm_priv_db* pdb, void* info, uint32_t* stat) {
                         return trelm_pyxnt_get_port_info(pdb, static_cast<cx_fcoe_port_info*>(info), stat);
                     },
                     trelm_pyxnt_get_port_stats,
                     trelm_pyxnt_get_tgt_info,
                     trelm_pyxnt_get_fcf_info,
                     trelm_pyxnt_send_scsi_cmd};

class Native : public testing::TestWithParam<DriverKind> {
  protected:
    bool kron() const { return GetParam() == DriverKind::kron; }
    const Functions& functions() const { return kron() ? kKron : kPyx; }
    std::string name(const std::string& function) const { return transport(GetParam()) + function; }

    void start(hostsim::Model model) { host_ = std::make_unique<hostsim::Host>(std::move(model)); }
    hostsim::Host& host() { return *host_; }
    uint32_t discover() {
        found_ = 4711;
        return functions().find_all("a name that is not used", &found_);
    }
    static std::vector<trelm_priv_db*> registry() {
        std::vector<trelm_priv_db*> ports;
        if (!trelm_priv_database) return ports;
        trelm_dlist_start(trelm_priv_database);
        while (auto* pdb = static_cast<trelm_priv_db*>(_trelm_dlist_mark_move(trelm_priv_database, 1))) {
            ports.push_back(pdb);
        }
        return ports;
    }
    static std::vector<uint32_t> instances() {
        std::vector<uint32_t> numbers;
        for (const trelm_priv_db* pdb : registry()) numbers.push_back(pdb->drvr_inst);
        return numbers;
    }
    void TearDown() override {
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
    }

    std::unique_ptr<hostsim::Host> host_;
    uint32_t found_ = 0;
};
INSTANTIATE_TEST_SUITE_P(, Native, testing::Values(DriverKind::kron, DriverKind::pyx), driver_name);

TEST(NativeSignatures, NameTheDriversInterfaces) {
    const uint64_t sizes[]{8, 16, 72, 520, 520, 72, 72, 262444, 24, 262172};
    for (const auto& [signature, own_name, callbacks] :
         {std::tuple{&kron_fcapi_sig, "kronnativefc", 10U}, {&cx_fcoe_sig, "cx_fcoe", 8U}}) {
        EXPECT_EQ(signature->version, 0x01000000U);
        EXPECT_STREQ(signature->name.string, own_name);
        EXPECT_STREQ(signature->vendor.string, "Calvexa");
        ASSERT_EQ(signature->numCallbacks, callbacks);
        for (uint32_t i = 0; i < callbacks; ++i) {
            const vmk_MgmtCallbackInfo& entry = signature->callbacks[i];
            EXPECT_EQ(entry.callbackId, 16 + i);
            EXPECT_EQ(entry.location, uint32_t{VMK_MGMT_CALLBACK_KERNEL});
            EXPECT_EQ(entry.callback, nullptr);
            EXPECT_EQ(entry.synchronous, 1);
            EXPECT_EQ(entry.numParms, 1);
            EXPECT_THAT(entry.parmSizes, ElementsAre(sizes[i], 0, 0, 0));
            EXPECT_THAT(entry.parmTypes, ElementsAre(VMK_MGMT_PARMTYPE_INOUT, 0, 0, 0));
        }
    }
    EXPECT_EQ(kron_fcapi_sig.callbacks, kron_fcapi_callbacks);
    EXPECT_EQ(cx_fcoe_sig.callbacks, cx_fcoe_callbacks);
}

TEST_P(Native, DiscoveryAsksInThisOrderWithTheseRecords) {
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 2);
    model.port(0, 0).host_no = 0x0A0B0C0D;
    model.port(0, 1).host_no = 7;
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_EQ(found_, 2U);
    struct Row {
        uint64_t callback;
        Bytes record;
    };
    std::vector<Row> rows{{kron() ? 501U : 601U, Bytes(0)}, {16, Bytes(8)}};
    for (const uint32_t host_no : {0x0A0B0C0DU, 7U}) {
        rows.push_back({17, Bytes(16).put(0, uint64_t{host_no == 7})});
        rows.push_back({19, Bytes(520).put(0, host_no)});
        rows.push_back({18, Bytes(72).put(0, host_no)});
    }
    const std::vector<hostsim::Call> calls = host().calls();
    ASSERT_EQ(calls.size(), rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(calls[i].number, rows[i].callback);
        EXPECT_EQ(calls[i].payload, rows[i].record.all()) << "of callback " << rows[i].callback;
    }
}

TEST_P(Native, DiscoveryFillsBothRecords) {
    hostsim::Model model = two_port_host(GetParam());
    hostsim::Adapter& adapter = model.adapters[0];
    adapter.management_firmware = 0x01020304;
    adapter.chip_revision = 0x55667788;
    adapter.serial_number = "all-of-the-32-bytes-of-a-serial#";
    model.port(0, 1).port_number = 0x203;
    model.port(0, 1).hba_name = "vmhba77";
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_EQ(found_, 6U);
    const std::vector<trelm_priv_db*> ports = registry();
    // A virtual port looks up its parent, behind which the next record goes: physical ports end up in front.
    EXPECT_THAT(instances(), ElementsAre(0, 3, 5, 4, 2, 1));
    ASSERT_EQ(ports.size(), 6U);
    const trelm_hw_info& hw = *ports[1]->hw_info;
    EXPECT_EQ(std::string(hw.serial_num, 32), "all-of-the-32-bytes-of-a-serial#");
    EXPECT_STREQ(hw.manufacturer, "Calvexa");
    EXPECT_STREQ(hw.phys_path, "");
    EXPECT_EQ(hw.oshandle, -1);
    EXPECT_EQ(hw.apihandle, 0U);
    EXPECT_EQ(hw.open_cnt, 0U);
    EXPECT_EQ(hw.native_driver, 1);
    EXPECT_EQ(hw.driver_loaded, 1);
    EXPECT_EQ(hw.npiv_count, 2U);
    EXPECT_EQ(hw.chip_rev_id, 0x55667788U);
    EXPECT_EQ(hw.mfw_version, kron() ? 0x01020304U : 0U);
    EXPECT_EQ(hw.phy_port_number, kron() ? 2 : 3)
        << "by PCI function, or the low byte of the driver's number";
    EXPECT_STREQ(ports[1]->hba_name, "vmhba77");
    EXPECT_EQ(ports[1]->fcf_cnt, 2U);
    EXPECT_EQ(ports[1]->tgt_cnt, 2U);
    for (const size_t virtual_port : {2U, 3U}) {
        EXPECT_EQ(ports[virtual_port]->hw_info, &hw);
        EXPECT_EQ(ports[virtual_port]->parent, ports[1]);
    }
    EXPECT_EQ(ports[5]->parent, ports[0]);
    EXPECT_EQ(ports[0]->parent, nullptr);
}

TEST_P(Native, AVirtualPortListedBeforeItsPhysicalPortIsKeptAlone) {
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 1, 1);
    model.port(0, 0).name = "physical";
    model.driver(GetParam()).order = {model.port(0, 0).virtual_ports[0].name, "physical"};
    start(model);
    LogCapture log;
    log.take();
    ASSERT_EQ(discover(), 0U);
    EXPECT_EQ(found_, 2U);
    const std::vector<trelm_priv_db*> ports = registry();
    EXPECT_THAT(instances(), ElementsAre(1, 0)) << "nothing was found, so the next goes to the front";
    EXPECT_EQ(ports[1]->hw_info, nullptr);
    EXPECT_EQ(ports[1]->parent, nullptr);
    EXPECT_THAT(log.take_of({name("get_hw_info_inst"), name("get_parent_port")}),
                ElementsAre(name("get_hw_info_inst: entered."),
                            name("get_hw_info_inst: api_phy_info is NOT initialized. Exiting."),
                            name("get_parent_port: entered."), name("get_parent_port: exiting.")));
}

TEST_P(Native, InstancesThatDoNotAnswerAreSkippedAndUnknownDevicesDropped) {
    for (const Operation operation : {Operation::hostno, Operation::port_info, Operation::pci_info}) {
        start(hostsim::hosts::ports(GetParam(), 3));
        host().inject(fault(operation, {.status = 1}, 2));
        LogCapture log;
        ASSERT_EQ(discover(), 0U);
        EXPECT_EQ(found_, 2U);
        EXPECT_THAT(instances(), ElementsAre(0, 2));
        EXPECT_THAT(log.take_of(name("find_all_instances")),
                    ElementsAre(name("find_all_instances: Got hba_count=3"),
                                name("find_all_instances: found 3 instances, exiting rval=0")));
        TearDown();
        host_.reset();
    }
    const std::vector<uint16_t> known{0x165C, 0x1662, 0x1663, 0x168A, 0x168E, 0x16A1,
                                      0x16A2, 0x16A4, 0x16A5, 0x16AE, 0x8080, 0x8180};
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 0);
    std::vector<uint32_t> kept;
    for (uint32_t device = 0x1650; device < 0x16B0; ++device) {
        hostsim::hosts::add_adapter(model, GetParam(), 1).device_id = static_cast<uint16_t>(device);
        if (std::count(known.begin(), known.end(), device)) kept.push_back(device - 0x1650);
    }
    for (const uint16_t device : {0x8070, 0x8080, 0x8180, 0x8081}) {
        hostsim::Adapter& adapter = hostsim::hosts::add_adapter(model, GetParam(), 1);
        adapter.device_id = device;
        adapter.vendor_id = 0xABCD;  // which does not matter
    }
    kept.insert(kept.end(), {97, 98});
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_THAT(instances(), testing::UnorderedElementsAreArray(kept));
    EXPECT_EQ(found_, 12U);
    EXPECT_EQ(trelm_phy_info->count, 12U);
}

// A dropped port leaves the cursor where it stood: past the last record, that is in front of the first.
TEST_P(Native, ADroppedPortDecidesWhereTheNextOneGoes) {
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 0);
    for (int i = 0; i < 4; ++i) hostsim::hosts::add_adapter(model, GetParam(), 1);
    model.adapters[1].device_id = 0x8070;
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_THAT(instances(), ElementsAre(2, 3, 0));
}

TEST_P(Native, ACountThatIsNonsenseEndsDiscovery) {
    for (const int64_t count : {0LL, -1LL, -2147483648LL, 4294967295LL, 5LL}) {
        SCOPED_TRACE(count);
        hostsim::Model model = hostsim::hosts::ports(GetParam(), 2);
        model.driver(GetParam()).reported_port_count = count;
        start(model);
        EXPECT_EQ(discover(), 0U);
        // The pyx driver counts without a sign, so a negative number is a large one to it.
        const bool none = count == 0 || (kron() && static_cast<int32_t>(count) < 0);
        EXPECT_EQ(found_, none ? 0U : 2U);
        EXPECT_EQ(registry().size(), found_);
        TearDown();
        host_.reset();
    }
}

TEST_P(Native, AnInterfaceOrCountThatFailsAddsNothing) {
    start(hostsim::hosts::ports(GetParam(), 1));
    LogCapture log(kErrorLines);
    host().inject(fault(Operation::init, {.status = 7}));
    EXPECT_EQ(discover(), 1U);
    host().inject(fault(Operation::hba_count, {.status = 3}));
    EXPECT_EQ(discover(), 1U);
    EXPECT_THAT(log.take(), ElementsAre(name("find_all_instances: vmk init failed. rc=7"),
                                        name("find_all_instances: get hba count failed.")));
    EXPECT_EQ(found_, 4711U);
    EXPECT_EQ(trelm_priv_database, nullptr);
}

TEST(KronPorts, AreNumberedByFunctionOnDualAndQuadPortAdapters) {
    hostsim::Model model = hostsim::hosts::kron_ports(0);
    for (const uint16_t subsystem : {0x0010, 0x0011}) {
        hostsim::Adapter& adapter = hostsim::hosts::add_adapter(model, DriverKind::kron, 8);
        adapter.subsystem_id = subsystem;
    }
    const Loaded library(model);
    for (uint32_t instance = 0; instance < 16; ++instance) {
        TRELM_FCOE_INFO info{};
        TRELM_GetFcoeInfo(open_port(instance), &info);
        EXPECT_EQ(info.PhyPortNum, instance < 8 ? instance % 4 + 1 : instance % 2 + 1);
    }
}

TEST_P(Native, OpensAndClosesAreCountedInTheHardwareRecord) {
    start(hostsim::hosts::ports(GetParam(), 1));
    ASSERT_EQ(discover(), 0U);
    trelm_priv_db* pdb = registry().at(0);
    uint32_t handle = 0;
    host().clear_calls();
    EXPECT_EQ(functions().open(pdb, 41, &handle), 0U);
    EXPECT_EQ(functions().open(pdb, 41, &handle), 0U);
    EXPECT_EQ(handle, 42U);
    EXPECT_EQ(functions().close(pdb), 0U);
    EXPECT_EQ(pdb->hw_info->open_cnt, 1U);
    EXPECT_EQ(pdb->hw_info->apihandle, 42U);
    EXPECT_EQ(functions().close(pdb), 0U);
    EXPECT_EQ(pdb->hw_info->apihandle, 0U);
    LogCapture log;
    log.take();
    EXPECT_EQ(functions().close(pdb), 0U);
    EXPECT_EQ(pdb->hw_info->open_cnt, 0U);
    EXPECT_EQ(functions().close(nullptr), 1U);
    EXPECT_EQ(functions().open(nullptr, 0, &handle), 1U);
    EXPECT_THAT(log.take(),
                ElementsAre(name("close_adapter(0): entered."), name("close_adapter: pdb not found, exiting"),
                            name("open_adapter: entered."), name("open_adapter: pdb not found, exiting")));
    EXPECT_TRUE(host().calls().empty()) << "the driver has no part in this";
}

// Each request: its record, what it leaves of the caller's, and its lines.
TEST_P(Native, RequestsCarryTheHostNumberAndLeaveTheRecordOnFailure) {
    hostsim::Model model = two_port_host(GetParam());
    model.port(0, 0).host_no = 0x11223344;
    start(model);
    ASSERT_EQ(discover(), 0U);
    trelm_priv_db* pdb = registry().at(0);
    pdb->hw_info->apihandle = 9;
    uint32_t stat = 0;
    GuardedBytes port(512), stats(512), target(64), fcf(64);
    struct Row {
        Operation operation;
        uint64_t callback;
        const char* function;
        const char* text;
        const char* exit;
        GuardedBytes* record;
        std::function<uint32_t()> call;
    };
    const std::vector<Row> rows{
        {Operation::port_info, 19, "get_port_info", "Get port info callback",
         kron() ? "exiting. ret=" : "exiting.", &port,
         [&] { return functions().port_info(pdb, port.data(), &stat); }},
        {Operation::port_stats, 20, "get_port_stats", "Get port stats native", "exiting. ret=", &stats,
         [&] {
             return functions().port_stats(pdb, reinterpret_cast<dorfc_port_stats*>(stats.data()), &stat);
         }},
        {Operation::tgt_info, 21, "get_tgt_info", "Get tgt info native", "exiting.", &target,
         [&] { return functions().tgt_info(pdb, reinterpret_cast<dorfc_tgt_info*>(target.data()), &stat); }},
        {Operation::fcf_info, 22, "get_fcf_info", "Get fcf info native", "exiting. ret=", &fcf,
         [&] { return functions().fcf_info(pdb, reinterpret_cast<dorfc_fcf_info*>(fcf.data()), &stat); }}};
    LogCapture log;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.function);
        const std::string start_of_line = name(row.function) + "(9): ";
        const auto exit_line = [&](int result) {
            const std::string exit(row.exit);
            return start_of_line + exit + (exit.ends_with('=') ? std::to_string(result) : "");
        };
        Bytes expected = Bytes(8 + row.record->size()).put(0, uint32_t{0x11223344});
        if (row.operation == Operation::tgt_info) expected.copy(12, target.data() + 4, 4);
        host().clear_calls();
        log.take();
        Failure{.status = 20, .error = EIO}.of(host(), row.operation);
        EXPECT_EQ(row.call(), 1U);
        EXPECT_EQ(stat, 20U);
        ASSERT_EQ(host().calls().size(), 1U);
        EXPECT_EQ(host().calls()[0].number, row.callback);
        EXPECT_EQ(host().calls()[0].payload, expected.all());
        EXPECT_THAT(log.take(),
                    ElementsAre(start_of_line + "entered.",
                                name(row.function) + ": " + row.text + " failed, status=20", exit_line(1)));
        Failure{.error = EIO}.of(host(), row.operation);
        EXPECT_EQ(row.call(), 1U);
        EXPECT_EQ(stat, 0U);
        EXPECT_THAT(
            log.take(),
            ElementsAre(start_of_line + "entered.",
                        name(row.function) + ": " + row.text + " function failed, errno=5", exit_line(1)));
        EXPECT_TRUE(row.record->untouched());
        host().tamper = [](Answer& answer) {
            answer.status = 0;
            std::fill(answer.payload.begin(), answer.payload.end(), uint8_t{0x6B});
        };
        EXPECT_EQ(row.call(), 0U);
        EXPECT_EQ(stat, 0U);
        EXPECT_THAT(contents(*row.record), testing::Each(0x6B)) << "the whole record is the driver's answer";
        EXPECT_TRUE(row.record->guards_intact());
        EXPECT_THAT(log.take(), ElementsAre(start_of_line + "entered.", exit_line(0)));
    }
}

TEST_P(Native, AScsiCommandComesBackWholeOrNotAtAll) {
    start(hostsim::hosts::ports(GetParam(), 1));
    ASSERT_EQ(discover(), 0U);
    trelm_priv_db* pdb = registry().at(0);
    const auto command = std::make_unique<Guarded<kronfc_scsi_cmd>>();
    uint32_t stat = 99;
    host().clear_calls();
    // What no record can carry is refused unsent.
    for (const auto& [direction, cdb_len, data_len] :
         {std::tuple{0, 17, 0U}, {1, 16, 262145U}, {2, 6, 262145U}, {2, 255, 4U}}) {
        (*command)->direction = static_cast<uint8_t>(direction);
        (*command)->cdb_len = static_cast<uint8_t>(cdb_len);
        (*command)->data_len = data_len;
        const std::vector<uint8_t> before = contents(*command);
        EXPECT_EQ(functions().send_scsi(pdb, command->get(), &stat), 1U);
        EXPECT_EQ(stat, 4U);
        EXPECT_TRUE(contents(*command) == before);
    }
    EXPECT_TRUE(host().calls().empty());

    (*command)->direction = 3;
    (*command)->cdb_len = 10;
    Bytes expected(1024);
    expected.put(0, pdb->host_no)
        .copy(8, command->data(), 22 + 2)
        .put(8 + 12, uint8_t{3})
        .put(8 + 13, uint8_t{10});
    expected.copy(8 + 30, command->data() + 30, 2);
    const std::vector<uint8_t> before = contents(*command);
    Failure{.status = 6}.of(host(), Operation::scsi);
    EXPECT_EQ(functions().send_scsi(pdb, command->get(), &stat), 1U);
    EXPECT_EQ(stat, 6U);
    EXPECT_TRUE(contents(*command) == before);
    EXPECT_EQ(host().calls().at(0).payload, expected.all()) << "ten bytes of the CDB, no data length";
    host().tamper = [](Answer& answer) {
        answer.status = 0;
        std::fill(answer.payload.begin(), answer.payload.end(), uint8_t{0x6B});
    };
    EXPECT_EQ(functions().send_scsi(pdb, command->get(), &stat), 0U);
    EXPECT_EQ(stat, 0U);
    const std::vector<uint8_t> after = contents(*command);
    EXPECT_EQ(static_cast<size_t>(std::count(after.begin(), after.end(), 0x6B)), after.size());
    EXPECT_TRUE(command->guards_intact());
}

}  // namespace
