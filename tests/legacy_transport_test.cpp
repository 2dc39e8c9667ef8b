// The transport to the legacy driver, called directly: the request block byte by byte, how each request ends,
// the check of the node, and opens that share one descriptor.
#include <fcntl.h>

#include <fstream>

#include "support/port_calls.h"

namespace {

using namespace trelm::test;

constexpr char kNode[] = "/dev/char/vmkdriver/dorfc";

Bytes request_block(uint16_t subcode, uint16_t port, const void* payload) {
    return Bytes(64)
        .text(0, "DORFC", 8)
        .put(Field{8, 2, 2}, Field{10, 2, 1}, Field{12, 2, subcode}, Field{18, 2, port},
             Field{20, 8, reinterpret_cast<uint64_t>(payload)});
}

class LegacyTransport : public testing::Test {
  protected:
    LegacyTransport() : host(hostsim::hosts::legacy_ports(2)), node(open(kNode, O_RDWR)) {
        hw.oshandle = -1;
        hw.apihandle = 9;
        memcpy(hw.phys_path, kNode, sizeof kNode);
        pdb.drvr_inst = 1;
        pdb.hw_info = &hw;
    }
    ~LegacyTransport() override { close(node); }

    hostsim::Host host;
    int node;
    trelm_hw_info hw{};
    trelm_priv_db pdb{};
};

TEST_F(LegacyTransport, ARequestBlockHasEveryFieldInPlace) {
    Guarded<dorfc_ioctl> block;
    uint8_t payload = 0;
    trelm_priv_db port{};
    port.drvr_inst = 0x12348765;
    EXPECT_EQ(trelm_setup_ioctl_struct(0x0102, &payload, &port, block.get()), 0U);
    EXPECT_EQ(contents(block), request_block(0x0102, 0x8765, &payload).all()) << "16 bits select a port";
    EXPECT_EQ(trelm_setup_ioctl_struct(0, nullptr, nullptr, block.get()), 0U);
    EXPECT_EQ(contents(block), request_block(0, 0, nullptr).all());
    EXPECT_TRUE(block.guards_intact());
    EXPECT_EQ(trelm_setup_ioctl_struct(0, &payload, &port, nullptr), 1U);
}

// Every request: its number and block, that the payload is the caller's own memory, and each of its ends.
TEST_F(LegacyTransport, RequestsGoOutAndAreJudgedAlike) {
    ASSERT_GE(node, 0);
    constexpr uint32_t kBefore = 4711;
    uint32_t stat = 99;
    struct Row {
        Operation operation;
        uint32_t number;
        const char *function, *shown, *text;
        size_t size;  // 0: the payload is the function's own, and the caller gets a number
        std::function<uint32_t(void*)> call;
    };
    const auto of = [&]<typename Record>(uint32_t (*function)(int32_t, trelm_priv_db*, Record*, uint32_t*)) {
        return [=, this, &stat](void* to) { return function(node, &pdb, static_cast<Record*>(to), &stat); };
    };
    LogCapture log;
    for (const Row& row :
         {Row{Operation::hba_count, 0xC0406201, "get_hba_count", "", "Get HBA Count", 0,
              [&](void* to) { return trelm_get_hba_count(node, static_cast<int32_t*>(to)); }},
          Row{Operation::hostno, 0xC0406202, "get_hostno", "(1)", "Get Host number", 0,
              [&](void* to) { return trelm_get_hostno(&pdb, node, static_cast<uint32_t*>(to)); }},
          Row{Operation::pci_info, 0xC0406203, "get_pci_info", "(9)", "Get pci info", 64,
              of(trelm_get_pci_info)},
          Row{Operation::port_info, 0xC0406204, "get_port_info", "(9)", "Get port info", 512,
              of(trelm_get_port_info)},
          Row{Operation::port_stats, 0xC0406205, "get_port_stats", "(9)", "Get port stats", 512,
              of(trelm_get_port_stats)},
          Row{Operation::tgt_info, 0xC0406206, "get_tgt_info", "(9)", "Get tgt info", 64,
              of(trelm_get_tgt_info)},
          Row{Operation::fcf_info, 0xC0406207, "get_fcf_info", "(9)", "Get fcf info", 64,
              of(trelm_get_fcf_info)},
          Row{Operation::scsi, 0xC0406208, "send_scsi_cmd", "(9)", "send scsi cmd", 320,
              of(trelm_send_scsi_cmd)}}) {
        SCOPED_TRACE(row.function);
        const std::string name = std::string("trelm_") + row.function;
        GuardedBytes record(std::max<size_t>(row.size, 4));
        if (!row.size) memcpy(record.data(), &kBefore, 4);
        if (row.operation == Operation::scsi) record.data()[12] = 0;  // no data phase
        const std::vector<uint8_t> before = contents(record);
        const auto expect_end = [&](uint32_t result, const std::string& line) {
            log.take();
            EXPECT_EQ(row.call(record.data()), result);
            EXPECT_EQ(log.take(), lines(name, {row.shown + std::string(": entered."), line}));
        };
        host.clear_calls();
        for (const auto& [failure, end] :
             {std::pair{Failure{.status = 3}, " ioctl failed, ioctl_status=3"},
              {Failure{.status = 200, .error = EIO}, " ioctl failed, ioctl_status=200"},
              {Failure{.error = EIO}, " ioctl function failed, errno=5"}}) {
            failure.of(host, row.operation);
            expect_end(1, std::string(": ") + row.text + end);
            if (!row.size) {
                EXPECT_EQ(contents(record), before);
            }
            EXPECT_EQ(stat, row.size ? failure.status : 99);
        }
        const hostsim::Call call = host.calls().at(0);
        EXPECT_EQ(call.number, row.number);
        Bytes block = request_block(0, row.operation != Operation::hba_count, record.data());
        if (!row.size) block.copy(20, call.block.data() + 20, 8);
        EXPECT_EQ(call.block, block.all());
        EXPECT_EQ(call.payload, row.size ? before : Bytes(8).all());
        host.tamper = [](Answer& answer) {
            answer.status = 0;
            memset(answer.payload.data(), 0x6B, answer.payload.size());
        };
        expect_end(0, row.shown + std::string(": exiting."));
        EXPECT_THAT(contents(record), Each(0x6B));
        EXPECT_TRUE(record.guards_intact());
        if (!row.size) stat = 99;
    }
}

TEST_F(LegacyTransport, OnlyACharacterDeviceIsANode) {
    const std::string directory = host.root(), file = directory + "/file";
    std::ofstream(file) << "text";
    LogCapture log;
    const size_t before = open_descriptors();
    for (const auto& [path, result, line] : {std::tuple{kNode, 0, "exiting."},
                                             {"/dev/null", 0, "exiting."},
                                             {file.c_str(), 1, "file not char node."},
                                             {directory.c_str(), 1, "file not char node."},
                                             {"/dev/char/vmkdriver/other", 1, "file open failed."},
                                             {nullptr, 1, "invalid char node file."}}) {
        log.take();
        EXPECT_EQ(trelm_charnode_exist(path), result) << line;
        EXPECT_EQ(log.take(), lines("trelm_charnode_exist: ", {"entered.", line}));
    }
    EXPECT_EQ(open_descriptors(), before);
}

TEST(LegacyAdapter, IsOpenedOnceAndClosedWithTheLast) {
    Loaded library(hostsim::hosts::legacy_ports(2));
    trelm_priv_db* pdb = trelm_get_pdb_from_user_instance(1);
    trelm_hw_info& hw = *pdb->hw_info;
    library.host.clear_calls();
    uint32_t handle = 0, err = 0;
    EXPECT_EQ(trelm_close_adapter(pdb, &err), 0U) << "there is nothing to close";
    for (uint32_t opens = 1; opens <= 3; ++opens) {
        EXPECT_EQ(trelm_open_adapter(pdb, &handle, &err), 0U);
        EXPECT_EQ(handle, 2U);
        EXPECT_EQ(hw.open_cnt, opens);
    }
    EXPECT_EQ(library.host.count_calls(Operation::open), 1U);
    const int descriptor = hw.oshandle;
    EXPECT_GE(descriptor, 0);
    // The last close fails at first, and leaves everything as it was.
    library.host.inject(fault(Operation::close, {.error = EIO}));
    for (const auto& [left, result] : {std::pair{2U, 0U}, {1U, 0U}, {1U, 1U}}) {
        EXPECT_EQ(library.host.count_calls(Operation::close), 0U);
        EXPECT_EQ(trelm_close_adapter(pdb, &err), result);
        EXPECT_EQ(hw.open_cnt, left);
        EXPECT_EQ(hw.apihandle, 2U);
        EXPECT_EQ(hw.oshandle, descriptor);
    }
    EXPECT_EQ(err, uint32_t{EIO});
    put_back(descriptor);
    EXPECT_EQ(trelm_close_adapter(pdb, &err), 0U);
    EXPECT_EQ(hw.oshandle, -1);
    EXPECT_EQ(hw.apihandle, 0U);
    EXPECT_EQ(hw.open_cnt, 0U);
    LogCapture log;
    log.take();
    EXPECT_EQ(trelm_close_adapter(nullptr, &err), 1U);
    EXPECT_EQ(log.take(), Lines{"trelm_close_adapter: pdb not found, exiting"});
    TRELM_FreeLibrary();
    trelm_priv_db orphan{};
    EXPECT_EQ(trelm_open_adapter(&orphan, &handle, &err), 1U);
    EXPECT_EQ(log.take().back(), "trelm_open_adapter: get instance failed");
}

}  // namespace
