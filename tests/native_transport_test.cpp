// The two native transports, called directly: what the drivers are asked and how, what discovery makes of
// their answers, and how each request ends. One body for both; where they differ the test says how.
#include <memory>

#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

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
template <auto kFunction, typename Record>
uint32_t port_info(trelm_priv_db* pdb, void* info, uint32_t* stat) {
    return kFunction(pdb, static_cast<Record*>(info), stat);
}
const Functions kKron{trelmnt_find_all_instances, trelmnt_open_adapter,
                      trelmnt_close_adapter,      port_info<trelmnt_get_port_info, kronfc_port_info>,
                      trelmnt_get_port_stats,     trelmnt_get_tgt_info,
                      trelmnt_get_fcf_info,       trelmnt_send_scsi_cmd};
const Functions kPyx{trelm_pyxnt_find_all_instances, trelm_pyxnt_open_adapter,
                     trelm_pyxnt_close_adapter,      port_info<trelm_pyxnt_get_port_info, cx_fcoe_port_info>,
                     trelm_pyxnt_get_port_stats,     trelm_pyxnt_get_tgt_info,
                     trelm_pyxnt_get_fcf_info,       trelm_pyxnt_send_scsi_cmd};

class Native : public testing::TestWithParam<DriverKind> {
  protected:
    ~Native() override { forget(); }

    bool kron() const { return GetParam() == DriverKind::kron; }
    const Functions& functions() const { return kron() ? kKron : kPyx; }
    std::string name(const std::string& function) const { return transport(GetParam()) + function; }

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
    uint32_t discover() {
        found_ = 4711;
        return functions().find_all("a name that is not used", &found_);
    }
    void answer_everything_with(uint8_t byte) {
        host().tamper = [byte](Answer& answer) {
            answer.status = 0;
            std::fill(answer.payload.begin(), answer.payload.end(), byte);
        };
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
            EXPECT_EQ(entry.synchronous * 100 + entry.numParms, 101);
            EXPECT_THAT(entry.parmSizes, ElementsAre(sizes[i], 0, 0, 0));
            EXPECT_THAT(entry.parmTypes, ElementsAre(VMK_MGMT_PARMTYPE_INOUT, 0, 0, 0));
        }
    }
}

TEST_P(Native, DiscoveryAsksInThisOrderWithTheseRecords) {
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 2);
    model.port(0, 0).host_no = 0x0A0B0C0D;
    model.port(0, 1).host_no = 7;
    start(model);
    ASSERT_EQ(discover(), 0U);
    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> expected{{kron() ? 501U : 601U, {}},
                                                                    {16, Bytes(8)}};
    for (const uint32_t host_no : {0x0A0B0C0DU, 7U}) {
        expected.emplace_back(17, Bytes(16).put(Field{0, 8, host_no == 7}));
        expected.emplace_back(19, Bytes(520).put(Field{0, 4, host_no}));
        expected.emplace_back(18, Bytes(72).put(Field{0, 4, host_no}));
    }
    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> asked;
    for (const hostsim::Call& call : host().calls()) asked.emplace_back(call.number, call.payload);
    EXPECT_EQ(asked, expected);
}

TEST_P(Native, DiscoveryFillsBothRecords) {
    hostsim::Model model = two_port_host(GetParam());
    hostsim::Adapter& adapter = model.adapters[0];
    adapter.management_firmware = 0x01020304, adapter.chip_revision = 0x55667788;
    adapter.serial_number = "all-of-the-32-bytes-of-a-serial#";
    model.port(0, 1).port_number = 0x203;
    model.port(0, 1).hba_name = "vmhba77";
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_EQ(found_, 6U);
    // A virtual port looks up its parent, behind which the next record goes: physical ports end up in front.
    ASSERT_THAT(instances(), ElementsAre(0, 3, 5, 4, 2, 1));
    const std::vector<trelm_priv_db*> ports = registry();
    const trelm_hw_info& hw = *ports[1]->hw_info;
    EXPECT_EQ(std::string(hw.serial_num, 32), "all-of-the-32-bytes-of-a-serial#");
    EXPECT_STREQ(hw.manufacturer, "Calvexa");
    EXPECT_STREQ(hw.phys_path, "");
    EXPECT_EQ(hw.oshandle, -1);
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
    for (const auto& [port, parent] : {std::pair{0, -1}, {2, 1}, {3, 1}, {5, 0}}) {
        EXPECT_EQ(ports[port]->parent, parent < 0 ? nullptr : ports[parent]);
        EXPECT_EQ(ports[port]->hw_info, ports[std::max(parent, 0)]->hw_info);
    }
}

TEST_P(Native, AVirtualPortListedBeforeItsPhysicalPortIsKeptAlone) {
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 1, 1);
    model.port(0, 0).name = "physical";
    model.driver(GetParam()).order = {model.port(0, 0).virtual_ports[0].name, "physical"};
    start(model);
    LogCapture log;
    log.take();
    ASSERT_EQ(discover(), 0U);
    EXPECT_THAT(instances(), ElementsAre(1, 0)) << "nothing was found, so the next goes to the front";
    EXPECT_EQ(registry()[1]->hw_info, nullptr);
    EXPECT_EQ(registry()[1]->parent, nullptr);
    EXPECT_EQ(log.take_of({name("get_hw_info_inst"), name("get_parent_port")}),
              lines(name("get_hw_info_inst: "), {"entered.", "api_phy_info is NOT initialized. Exiting."}) +
                  lines(name("get_parent_port: "), {"entered.", "exiting."}));
}

// A record that goes leaves the cursor where it stood: past the last record, that is in front of the first.
TEST_P(Native, InstancesThatDoNotAnswerAreSkippedAndUnknownDevicesDropped) {
    for (const Operation operation : {Operation::hostno, Operation::port_info, Operation::pci_info}) {
        start(hostsim::hosts::ports(GetParam(), 3));
        host().inject(fault(operation, {.status = 1}, 2));
        LogCapture log;
        ASSERT_EQ(discover(), 0U);
        EXPECT_EQ(found_, 2U);
        EXPECT_THAT(instances(), ElementsAre(0, 2));
        EXPECT_EQ(
            log.take_of(name("find_all_instances")),
            lines(name("find_all_instances: "), {"Got hba_count=3", "found 3 instances, exiting rval=0"}));
    }
    hostsim::Model model = hostsim::hosts::ports(GetParam(), 0);
    const std::vector<uint32_t> kept = add_devices(model, GetParam());
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_THAT(instances(), testing::UnorderedElementsAreArray(kept));
    EXPECT_EQ(found_, 12U);
    EXPECT_EQ(trelm_phy_info->count, 12U);

    model = hostsim::hosts::ports(GetParam(), 0);
    for (int i = 0; i < 4; ++i) hostsim::hosts::add_adapter(model, GetParam(), 1);
    model.adapters[1].device_id = 0x8070;
    start(model);
    ASSERT_EQ(discover(), 0U);
    EXPECT_THAT(instances(), ElementsAre(2, 3, 0));
}

TEST_P(Native, ACountThatIsNonsenseOrFailsEndsDiscovery) {
    for (const int64_t count : {0LL, -1LL, -2147483648LL, 4294967295LL, 5LL}) {
        SCOPED_TRACE(count);
        hostsim::Model model = hostsim::hosts::ports(GetParam(), 2);
        model.driver(GetParam()).reported_port_count = count;
        start(model);
        EXPECT_EQ(discover(), 0U);
        // The pyx driver counts without a sign, so a negative number is a large one to it.
        EXPECT_EQ(found_, count == 0 || (kron() && static_cast<int32_t>(count) < 0) ? 0U : 2U);
        EXPECT_EQ(registry().size(), found_);
    }
    start(hostsim::hosts::ports(GetParam(), 1));
    LogCapture log(kErrorLines);
    host().inject(fault(Operation::init, {.status = 7}));
    EXPECT_EQ(discover(), 1U);
    host().inject(fault(Operation::hba_count, {.status = 3}));
    EXPECT_EQ(discover(), 1U);
    EXPECT_EQ(log.take(),
              lines(name("find_all_instances: "), {"vmk init failed. rc=7", "get hba count failed."}));
    EXPECT_EQ(found_, 4711U);
    EXPECT_EQ(trelm_priv_database, nullptr);
}

TEST(KronPorts, AreNumberedByFunctionOnDualAndQuadPortAdapters) {
    hostsim::Model model = hostsim::hosts::kron_ports(0);
    for (const uint16_t subsystem : {0x0010, 0x0011}) {
        hostsim::hosts::add_adapter(model, DriverKind::kron, 8).subsystem_id = subsystem;
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
    LogCapture log;
    for (const auto& [open, count] : {std::pair{true, 1}, {true, 2}, {false, 1}, {false, 0}, {false, 0}}) {
        log.take();
        EXPECT_EQ(open ? functions().open(pdb, 41, &handle) : functions().close(pdb), 0U);
        EXPECT_EQ(pdb->hw_info->open_cnt, uint32_t(count));
        EXPECT_EQ(pdb->hw_info->apihandle, count ? 42U : 0U);
    }
    EXPECT_EQ(handle, 42U);
    EXPECT_EQ(functions().close(nullptr), 1U);
    EXPECT_EQ(functions().open(nullptr, 0, &handle), 1U);
    EXPECT_EQ(log.take(),
              lines(name(""), {"close_adapter(0): entered.", "close_adapter: pdb not found, exiting",
                               "open_adapter: entered.", "open_adapter: pdb not found, exiting"}));
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
    struct Row {
        Operation operation;
        uint64_t callback;
        const char *function, *text, *exit;
        size_t size;
        std::function<uint32_t(void*)> call;
    };
    const auto of = [&](auto function) {
        return [=, &stat](void* record) {
            return [&]<typename Record>(uint32_t (*f)(trelm_priv_db*, Record*, uint32_t*)) {
                return f(pdb, static_cast<Record*>(record), &stat);
            }(function);
        };
    };
    const Functions& f = functions();
    LogCapture log;
    for (const Row& row :
         {Row{Operation::port_info, 19, "get_port_info", "Get port info callback",
              kron() ? "exiting. ret={}" : "exiting.", 512, of(f.port_info)},
          Row{Operation::port_stats, 20, "get_port_stats", "Get port stats native", "exiting. ret={}", 512,
              of(f.port_stats)},
          Row{Operation::tgt_info, 21, "get_tgt_info", "Get tgt info native", "exiting.", 64, of(f.tgt_info)},
          Row{Operation::fcf_info, 22, "get_fcf_info", "Get fcf info native", "exiting. ret={}", 64,
              of(f.fcf_info)}}) {
        SCOPED_TRACE(row.function);
        GuardedBytes record(row.size);
        Bytes expected = Bytes(8 + row.size).put(Field{0, 4, 0x11223344});
        if (row.operation == Operation::tgt_info) expected.copy(12, record.data() + 4, 4);
        const auto expect_end = [&](uint32_t result, uint32_t status, const Lines& text) {
            host().clear_calls();
            log.take();
            EXPECT_EQ(row.call(record.data()), result);
            EXPECT_EQ(stat, status);
            EXPECT_EQ(log.take(),
                      lines(name(row.function) + "(9): ", {"entered."}) +
                          lines(name(row.function) + ": " + row.text, text) +
                          lines(name(row.function) + "(9): ", {fmt::format(fmt::runtime(row.exit), result)}));
            ASSERT_EQ(host().calls().size(), 1U);
            EXPECT_EQ(host().calls()[0].number, row.callback);
        };
        Failure{.status = 20, .error = EIO}.of(host(), row.operation);
        expect_end(1, 20, {" failed, status=20"});
        EXPECT_EQ(host().calls()[0].payload, expected.all());
        Failure{.error = EIO}.of(host(), row.operation);
        expect_end(1, 0, {" function failed, errno=5"});
        EXPECT_TRUE(record.untouched());
        answer_everything_with(0x6B);
        expect_end(0, 0, {});
        EXPECT_THAT(contents(record), Each(0x6B)) << "the whole record is the driver's answer";
        EXPECT_TRUE(record.guards_intact());
    }
}

TEST_P(Native, AScsiCommandComesBackWholeOrNotAtAll) {
    start(hostsim::hosts::ports(GetParam(), 1));
    ASSERT_EQ(discover(), 0U);
    trelm_priv_db* pdb = registry().at(0);
    const auto command = std::make_unique<Guarded<kronfc_scsi_cmd>>();
    uint32_t stat = 99;
    host().clear_calls();
    const auto expect_refused = [&](uint32_t status) {
        const std::vector<uint8_t> before = contents(*command);
        EXPECT_EQ(functions().send_scsi(pdb, command->get(), &stat), 1U);
        EXPECT_EQ(stat, status);
        EXPECT_TRUE(contents(*command) == before);
    };
    // What no record can carry is refused unsent.
    for (const auto& [direction, cdb_len, data_len] :
         {std::tuple{0, 17, 0U}, {1, 16, 262145U}, {2, 6, 262145U}, {2, 255, 4U}}) {
        (*command)->direction = static_cast<uint8_t>(direction);
        (*command)->cdb_len = static_cast<uint8_t>(cdb_len);
        (*command)->data_len = data_len;
        expect_refused(4);
    }
    EXPECT_TRUE(host().calls().empty());

    (*command)->direction = 3;
    (*command)->cdb_len = 10;
    Bytes expected(1024);
    expected.put(Field{0, 4, pdb->host_no}).copy(8, command->data(), 24).copy(38, command->data() + 30, 2);
    Failure{.status = 6}.of(host(), Operation::scsi);
    expect_refused(6);
    EXPECT_EQ(host().calls().at(0).payload, expected.all()) << "ten bytes of the CDB, no data length";
    answer_everything_with(0x6B);
    EXPECT_EQ(functions().send_scsi(pdb, command->get(), &stat), 0U);
    EXPECT_EQ(stat, 0U);
    const std::vector<uint8_t> after = contents(*command);
    EXPECT_EQ(static_cast<size_t>(std::count(after.begin(), after.end(), 0x6B)), after.size());
    EXPECT_TRUE(command->guards_intact());
}

}  // namespace
