// The transports to the three drivers, called directly: what goes out byte by byte, how each request ends and
// what it then says, and what the legacy driver's node has to be.
#include <fcntl.h>

#include <fstream>

#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

constexpr char kNode[] = "/dev/char/vmkdriver/dorfc";
constexpr uint32_t kHostNo = 0x11223344;

Bytes request_block(uint16_t subcode, uint16_t port, const void* payload) {
    return Bytes(64)
        .text(0, "DORFC", 8)
        .put(Field{8, 2, 2}, Field{10, 2, 1}, Field{12, 2, subcode}, Field{18, 2, port},
             Field{20, 8, reinterpret_cast<uint64_t>(payload)});
}

class Transport : public OnEachDriver {
  protected:
    using Request = std::function<uint32_t(void*)>;

    Transport() {
        open_port(1);
        pdb = trelm_get_pdb_from_user_handle(2);
        pdb->host_no = kHostNo;
    }
    template <typename Record>
    Request over(uint32_t (*function)(trelm_priv_db*, Record*, uint32_t*)) {
        return [=, this](void* to) { return function(pdb, static_cast<Record*>(to), &stat); };
    }
    template <typename Record>
    Request over(uint32_t (*function)(int32_t, trelm_priv_db*, Record*, uint32_t*)) {
        return [=, this](void* to) {
            return function(pdb->hw_info->oshandle, pdb, static_cast<Record*>(to), &stat);
        };
    }
    std::vector<Request> requests() {
        if (GetParam() == DriverKind::kron)
            return {over(trelmnt_get_port_info), over(trelmnt_get_port_stats), over(trelmnt_get_tgt_info),
                    over(trelmnt_get_fcf_info)};
        if (GetParam() == DriverKind::pyx)
            return {over(trelm_pyxnt_get_port_info), over(trelm_pyxnt_get_port_stats),
                    over(trelm_pyxnt_get_tgt_info), over(trelm_pyxnt_get_fcf_info)};
        return {over(trelm_get_port_info), over(trelm_get_port_stats), over(trelm_get_tgt_info),
                over(trelm_get_fcf_info),  over(trelm_get_pci_info),   over(trelm_send_scsi_cmd)};
    }
    void answer_everything_with(uint8_t byte) {
        host.tamper = [byte](Answer& answer) {
            answer.status = 0, answer.result = 0;
            std::fill(answer.payload.begin(), answer.payload.end(), byte);
        };
    }

    const bool native = GetParam() != DriverKind::legacy;
    const std::string own = transport(GetParam());
    trelm_priv_db* pdb;
    uint32_t stat = 99;
};
TRELM_ON_EACH_DRIVER(Transport);

TEST_P(Transport, RequestsGoOutWholeAndTheirStatusCountsBeforeTheirResult) {
    struct Row {
        Operation operation;
        uint64_t number;
        const char *function, *text;
        size_t size;
        bool shows_result;
    };
    const Row rows[]{{Operation::port_info, 4, "get_port_info", "Get port info", 512, own == "trelmnt_"},
                     {Operation::port_stats, 5, "get_port_stats", "Get port stats", 512, native},
                     {Operation::tgt_info, 6, "get_tgt_info", "Get tgt info", 64, false},
                     {Operation::fcf_info, 7, "get_fcf_info", "Get fcf info", 64, native},
                     {Operation::pci_info, 3, "get_pci_info", "Get pci info", 64, false},
                     {Operation::scsi, 8, "send_scsi_cmd", "send scsi cmd", 320, false}};
    const std::vector<Request> calls = requests();
    LogCapture log;
    pdb->drvr_inst |= 0x12340000;  // 16 bits select a port
    for (size_t i = 0; i < calls.size(); ++i) {
        const Row& row = rows[i];
        SCOPED_TRACE(row.function);
        GuardedBytes record(row.size);
        if (row.operation == Operation::scsi) record.data()[12] = 0;  // no data phase
        const std::vector<uint8_t> before = contents(record);
        const std::string name = own + row.function;
        const std::string kind = !native                                 ? " ioctl"
                                 : row.operation == Operation::port_info ? " callback"
                                                                         : " native";
        const auto expect_end = [&](uint32_t result, uint32_t status, const std::string& end) {
            log.take();
            EXPECT_EQ(calls[i](record.data()), result);
            EXPECT_EQ(stat, status);
            Lines said{name + "(2): entered."};
            if (result) said.push_back(name + ": " + row.text + kind + end);
            if (native || !result) said.push_back(name + "(2): exiting.");
            if (row.shows_result) said.back() += fmt::format(" ret={}", result);
            EXPECT_EQ(log.take(), said);
        };
        host.clear_calls();
        Failure{.status = 20, .error = EIO}.of(host, row.operation);
        expect_end(1, 20, native ? " failed, status=20" : " failed, ioctl_status=20");
        Failure{.error = EIO}.of(host, row.operation);
        expect_end(1, 0, " function failed, errno=5");
        EXPECT_EQ(contents(record), before);

        const hostsim::Call call = host.calls().at(0);
        EXPECT_EQ(call.number, row.number + (native ? 15 : 0xC0406200));
        if (native) {
            Bytes expected = Bytes(8 + row.size).put(Field{0, 4, kHostNo});
            if (row.operation == Operation::tgt_info) expected.copy(12, record.data() + 4, 4);
            EXPECT_EQ(call.payload, expected.all());
        } else {
            EXPECT_EQ(call.payload, before);
            EXPECT_EQ(call.block, request_block(0, 3, record.data()).all());
        }
        answer_everything_with(0x6B);
        expect_end(0, 0, "");
        EXPECT_THAT(contents(record), Each(0x6B)) << "the whole record is the driver's answer";
        EXPECT_TRUE(record.guards_intact());
    }
}

using NativeTransport = Transport;
INSTANTIATE_TEST_SUITE_P(, NativeTransport, testing::Values(DriverKind::kron, DriverKind::pyx), driver_name);

TEST_P(NativeTransport, AScsiCommandComesBackWholeOrNotAtAll) {
    const auto send = GetParam() == DriverKind::kron ? trelmnt_send_scsi_cmd : trelm_pyxnt_send_scsi_cmd;
    const auto command = std::make_unique<Guarded<kronfc_scsi_cmd>>();
    const auto expect_refused = [&](uint32_t status) {
        const std::vector<uint8_t> before = contents(*command);
        EXPECT_EQ(send(pdb, command->get(), &stat), 1U);
        EXPECT_EQ(stat, status);
        EXPECT_TRUE(contents(*command) == before);
    };
    host.clear_calls();
    // What no record can carry is refused unsent.
    for (const auto& [direction, cdb_len, data_len] :
         {std::tuple<uint8_t, uint8_t, uint32_t>{0, 17, 0}, {2, 16, 262145}}) {
        (*command)->direction = direction, (*command)->cdb_len = cdb_len, (*command)->data_len = data_len;
        expect_refused(4);
    }
    EXPECT_TRUE(host.calls().empty());
    (*command)->direction = 3, (*command)->cdb_len = 10, (*command)->data_len = 4;
    Failure{.status = 6}.of(host, Operation::scsi);
    expect_refused(6);
    Bytes sent = Bytes(1024).put(Field{0, 4, kHostNo}).copy(8, command->data(), 24);
    EXPECT_EQ(host.calls().at(0).payload, sent.copy(38, command->data() + 30, 2).all())
        << "ten bytes of the CDB, and without a direction no data length";
    answer_everything_with(0x6B);
    EXPECT_EQ(send(pdb, command->get(), &stat), 0U);
    EXPECT_TRUE(contents(*command) == std::vector<uint8_t>(sizeof(kronfc_scsi_cmd), 0x6B));
    EXPECT_TRUE(command->guards_intact());
}

TEST(LegacyNode, IsACharacterDeviceThatTakesBlocksOfRequests) {
    const hostsim::Host host(hostsim::hosts::legacy_ports(1));
    const std::string directory = host.root(), file = directory + "/file";
    std::ofstream(file) << "text";
    LogCapture log;
    const size_t before = open_descriptors();
    for (const auto& [path, result, line] : {std::tuple{kNode, 0, "exiting."},
                                             {file.c_str(), 1, "file not char node."},
                                             {directory.c_str(), 1, "file not char node."},
                                             {"/dev/char/vmkdriver/other", 1, "file open failed."},
                                             {nullptr, 1, "invalid char node file."}}) {
        log.take();
        EXPECT_EQ(trelm_charnode_exist(path), result) << line;
        EXPECT_EQ(log.take(), lines("trelm_charnode_exist: ", {"entered.", line}));
    }
    EXPECT_EQ(open_descriptors(), before);
    uint32_t err = 0;
    EXPECT_EQ(trelm_close_adapter(nullptr, &err), 1U);
    EXPECT_THAT(log.take(), ElementsAre("trelm_close_adapter: pdb not found, exiting"));

    Guarded<dorfc_ioctl> block;
    EXPECT_EQ(trelm_setup_ioctl_struct(0x0102, &log, nullptr, block.get()), 0U);
    EXPECT_EQ(contents(block), request_block(0x0102, 0, &log).all());
    EXPECT_TRUE(block.guards_intact());
    EXPECT_EQ(trelm_setup_ioctl_struct(0, nullptr, nullptr, nullptr), 1U);
}

}  // namespace
