// The transport to the legacy driver, called directly: the request block byte by byte, how each request ends,
// the check of the node, and opens that share one descriptor.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "support/descriptors.h"
#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"
#include "trelm_core.h"

namespace {

using namespace trelm::test;
using hostsim::Answer;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::ElementsAre;

constexpr char kNode[] = "/dev/char/vmkdriver/dorfc";

Bytes request_block(uint16_t subcode, uint16_t port, const void* payload) {
    return Bytes(64)
        .text(0, "DORFC", 8)
        .put(8, uint16_t{2})
        .put(10, uint16_t{1})
        .put(12, subcode)
        .put(18, port)
        .put(20, reinterpret_cast<uint64_t>(payload));
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
    EXPECT_EQ(contents(block), request_block(0x0102, 0x8765, &payload).all())
        << "a port is selected with 16 bits";
    EXPECT_EQ(trelm_setup_ioctl_struct(0, nullptr, nullptr, block.get()), 0U);
    EXPECT_EQ(contents(block), request_block(0, 0, nullptr).all());
    EXPECT_TRUE(block.guards_intact());
    EXPECT_EQ(trelm_setup_ioctl_struct(0, &payload, &port, nullptr), 1U);
}

// Every request: its number and block, that the payload is the caller's own memory, and each of its ends.
TEST_F(LegacyTransport, RequestsGoOutAndAreJudgedAlike) {
    ASSERT_GE(node, 0);
    GuardedBytes pci(64), port(512), stats(512), target(64), fcf(64), scsi(320);
    memset(scsi.data() + 12, 0, 1);  // no data phase
    int32_t count = -7;
    uint32_t host_no = 4711;
    uint32_t stat = 99;
    struct Row {
        Operation operation;
        uint32_t number;
        const char* function;
        const char* shown;  // in its trace lines
        const char* text;
        GuardedBytes* payload;
        std::function<uint32_t()> call;
    };
    const std::vector<Row> rows{
        {Operation::hba_count, 0xC0406201, "trelm_get_hba_count", "", "Get HBA Count", nullptr,
         [&] { return trelm_get_hba_count(node, &count); }},
        {Operation::hostno, 0xC0406202, "trelm_get_hostno", "(1)", "Get Host number", nullptr,
         [&] { return trelm_get_hostno(&pdb, node, &host_no); }},
        {Operation::pci_info, 0xC0406203, "trelm_get_pci_info", "(9)", "Get pci info", &pci,
         [&] {
             return trelm_get_pci_info(node, &pdb, reinterpret_cast<dorfc_pci_info*>(pci.data()), &stat);
         }},
        {Operation::port_info, 0xC0406204, "trelm_get_port_info", "(9)", "Get port info", &port,
         [&] {
             return trelm_get_port_info(node, &pdb, reinterpret_cast<dorfc_port_info*>(port.data()), &stat);
         }},
        {Operation::port_stats, 0xC0406205, "trelm_get_port_stats", "(9)", "Get port stats", &stats,
         [&] {
             return trelm_get_port_stats(node, &pdb, reinterpret_cast<dorfc_port_stats*>(stats.data()),
                                         &stat);
         }},
        {Operation::tgt_info, 0xC0406206, "trelm_get_tgt_info", "(9)", "Get tgt info", &target,
         [&] {
             return trelm_get_tgt_info(node, &pdb, reinterpret_cast<dorfc_tgt_info*>(target.data()), &stat);
         }},
        {Operation::fcf_info, 0xC0406207, "trelm_get_fcf_info", "(9)", "Get fcf info", &fcf,
         [&] {
             return trelm_get_fcf_info(node, &pdb, reinterpret_cast<dorfc_fcf_info*>(fcf.data()), &stat);
         }},
        {Operation::scsi, 0xC0406208, "trelm_send_scsi_cmd", "(9)", "send scsi cmd", &scsi, [&] {
             return trelm_send_scsi_cmd(node, &pdb, reinterpret_cast<dorfc_scsi_cmd*>(scsi.data()), &stat);
         }}};
    LogCapture log;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.function);
        const std::string name = row.function;
        const std::string entered = name + row.shown + ": entered.";
        const auto expect_end = [&](Failure failure, uint32_t result, const std::string& line) {
            failure.of(host, row.operation);
            log.take();
            EXPECT_EQ(row.call(), result);
            EXPECT_THAT(log.take(), ElementsAre(entered, name + line));
            if (row.payload) {
                EXPECT_EQ(stat, failure.status);
            }
        };
        host.clear_calls();
        expect_end({.status = 3}, 1, fmt::format(": {} ioctl failed, ioctl_status=3", row.text));
        const hostsim::Call call = host.calls().at(0);
        EXPECT_EQ(call.number, row.number);
        Bytes block = request_block(0, row.operation == Operation::hba_count ? 0 : 1, nullptr);
        // The payload of the first two is the function's own, and zero.
        block.copy(20,
                   row.payload ? Bytes(8).put(0, reinterpret_cast<uint64_t>(row.payload->data())).data()
                               : call.block.data() + 20,
                   8);
        EXPECT_EQ(call.block, block.all());
        EXPECT_EQ(call.payload, row.payload && row.operation != Operation::scsi
                                    ? Bytes::initial(row.payload->size()).all()
                                : row.payload ? contents(*row.payload)
                                              : Bytes(8).all());
        expect_end({.status = 200, .error = EIO}, 1,
                   fmt::format(": {} ioctl failed, ioctl_status=200", row.text));
        expect_end({.error = EIO}, 1, fmt::format(": {} ioctl function failed, errno=5", row.text));
        EXPECT_EQ(count, -7);
        EXPECT_EQ(host_no, 4711U);
        host.tamper = [](Answer& answer) {
            answer.status = 0;
            memset(answer.payload.data(), 0x6B, answer.payload.size());
        };
        EXPECT_EQ(row.call(), 0U);
        EXPECT_THAT(log.take(), ElementsAre(entered, name + row.shown + ": exiting."));
        if (row.payload) {
            EXPECT_THAT(contents(*row.payload), testing::Each(0x6B));
        }
        if (row.payload) {
            EXPECT_TRUE(row.payload->guards_intact());
        }
        if (row.operation == Operation::hba_count) {
            EXPECT_EQ(std::exchange(count, -7), 0x6B6B6B6B);
        }
        if (row.operation == Operation::hostno) {
            EXPECT_EQ(std::exchange(host_no, 4711), 0x6B6B6B6BU);
        }
    }
}

TEST_F(LegacyTransport, OnlyACharacterDeviceIsANode) {
    const std::string directory = host.root();
    const std::string file = directory + "/file";
    std::ofstream(file) << "text";
    struct Row {
        const char* path;
        uint8_t result;
        const char* line;
    };
    const size_t before = open_descriptors();
    LogCapture log;
    const size_t capturing = open_descriptors() - before;
    for (const Row& row : {Row{kNode, 0, "trelm_charnode_exist: exiting."},
                           {"/dev/null", 0, "trelm_charnode_exist: exiting."},
                           {file.c_str(), 1, "trelm_charnode_exist: file not char node."},
                           {directory.c_str(), 1, "trelm_charnode_exist: file not char node."},
                           {"/dev/char/vmkdriver/other", 1, "trelm_charnode_exist: file open failed."},
                           {nullptr, 1, "trelm_charnode_exist: invalid char node file."}}) {
        log.take();
        EXPECT_EQ(trelm_charnode_exist(row.path), row.result) << row.line;
        EXPECT_THAT(log.take(), ElementsAre("trelm_charnode_exist: entered.", row.line));
    }
    EXPECT_EQ(open_descriptors(), before + capturing);
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
    EXPECT_GE(hw.oshandle, 0);
    for (uint32_t left = 2; left >= 1; --left) {
        EXPECT_EQ(trelm_close_adapter(pdb, &err), 0U);
        EXPECT_EQ(hw.open_cnt, left);
        EXPECT_EQ(hw.apihandle, 2U);
    }
    EXPECT_EQ(library.host.count_calls(Operation::close), 0U);
    library.host.inject(fault(Operation::close, {.error = EIO}));
    const int descriptor = hw.oshandle;
    EXPECT_EQ(trelm_close_adapter(pdb, &err), 1U);
    EXPECT_EQ(err, uint32_t{EIO});
    EXPECT_EQ(hw.open_cnt, 1U);
    EXPECT_EQ(hw.oshandle, descriptor);
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
    log.take();
    trelm_priv_db orphan{};
    EXPECT_EQ(trelm_open_adapter(&orphan, &handle, &err), 1U);
    EXPECT_EQ(log.take().back(), "trelm_open_adapter: get instance failed");
}

}  // namespace
