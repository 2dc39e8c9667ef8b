// The transports to the three drivers, called directly: the bytes that are sent, the result and log of each
// request, and the requirements for the node of the legacy driver.

#include <fstream>

#include "support/port_calls.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using namespace trelm::test;

constexpr uint32_t kHostNo = 0x11223344;

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
                    over(trelmnt_get_fcf_info), over(trelmnt_send_scsi_cmd)};
        if (GetParam() == DriverKind::pyx)
            return {over(trelm_pyxnt_get_port_info), over(trelm_pyxnt_get_port_stats),
                    over(trelm_pyxnt_get_tgt_info), over(trelm_pyxnt_get_fcf_info),
                    over(trelm_pyxnt_send_scsi_cmd)};
        return {over(trelm_get_port_info), over(trelm_get_port_stats), over(trelm_get_tgt_info),
                over(trelm_get_fcf_info),  over(trelm_send_scsi_cmd),  over(trelm_get_pci_info)};
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
                     {Operation::scsi, 8, "send_scsi_cmd", "send scsi cmd",
                      native ? sizeof(kronfc_scsi_cmd) : sizeof(dorfc_scsi_cmd), false},
                     {Operation::pci_info, 3, "get_pci_info", "Get pci info", 64, false}};
    const std::vector<Request> calls = requests();
    LogCapture log;
    pdb->drvr_inst |= 0x12340000;  // 16 bits select a port
    for (size_t i = 0; i < calls.size(); ++i) {
        const Row& row = rows[i];
        SCOPED_TRACE(row.function);
        GuardedBytes record(row.size);
        const bool scsi = row.operation == Operation::scsi;
        if (scsi) memcpy(record.data() + 12, "\x03\x0A", 2);  // no data phase, a CDB of ten bytes
        if (scsi) memset(record.data() + 288, 0, 4);          // no data
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
        DriverFailure{.status = 20, .error = EIO}.of(host, row.operation);
        expect_end(1, 20, native ? " failed, status=20" : " failed, ioctl_status=20");
        DriverFailure{.error = EIO}.of(host, row.operation);
        expect_end(1, 0, " function failed, errno=5");
        EXPECT_TRUE(contents(record) == before);

        const hostsim::Call call = host.calls().at(0);
        EXPECT_EQ(call.number, row.number + (native ? 15 : 0xC0406200));
        if (native) {
            Bytes expected = Bytes(scsi ? 1024 : 8 + row.size).put(Field{0, 4, kHostNo});
            if (row.operation == Operation::tgt_info) expected.copy(12, record.data() + 4, 4);
            if (scsi) expected.copy(8, record.data(), 24).copy(38, record.data() + 30, 2);
            EXPECT_EQ(call.payload, expected.all());
        } else {
            EXPECT_EQ(call.payload, before);
            Bytes block = Bytes(64).text(0, "DORFC", 8).put(20, reinterpret_cast<uint64_t>(record.data()));
            EXPECT_EQ(call.block, block.put(Field{8, 2, 2}, Field{10, 2, 1}, Field{18, 2, 3}).all());
        }
        host.tamper = [](Answer& answer) {
            answer.status = 0, answer.result = 0;
            std::fill(answer.payload.begin(), answer.payload.end(), 0x6B);
        };
        expect_end(0, 0, "");
        EXPECT_TRUE(contents(record) == std::vector<uint8_t>(row.size, 0x6B)) << "the driver's answer, whole";
        EXPECT_TRUE(record.guards_intact());
        if (!native || !scsi) continue;
        host.clear_calls();
        for (const auto& [direction, cdb_length, length, sent] :
             {std::tuple<uint8_t, uint8_t, uint32_t, bool>{0, 17, 0, false},
              {1, 16, 262145, false},
              {2, 16, 262145, false},
              {0, 16, 262145, true},
              {3, 16, 262145, true}}) {
            host.clear_calls();
            record.data()[12] = direction, record.data()[13] = cdb_length;
            memcpy(record.data() + 288, &length, 4);
            EXPECT_EQ(calls[i](record.data()), sent ? 0U : 1U);
            EXPECT_EQ(stat, sent ? 0U : 4U);
            ASSERT_EQ(host.calls().size(), sent ? 1U : 0U) << "what no record can carry is refused unsent";
            if (!sent) continue;
            EXPECT_EQ(memcmp(&host.calls()[0].payload[8 + 288], "\0\0\0", 4), 0) << "no data";
        }
    }
}

TEST(LegacyNode, IsACharacterDeviceThatTakesBlocksOfRequests) {
    const hostsim::Host host(hostsim::hosts::legacy_ports(1));
    const std::string directory = host.root(), file = directory + "/file";
    std::ofstream(file) << "text";
    LogCapture log;
    const size_t before = open_descriptors();
    for (const auto& [path, result, line] : {std::tuple{"/dev/char/vmkdriver/dorfc", 0, "exiting."},
                                             {file.c_str(), 1, "file not char node."},
                                             {directory.c_str(), 1, "file not char node."},
                                             {"/dev/char/vmkdriver/other", 1, "file open failed."},
                                             {nullptr, 1, "invalid char node file."}}) {
        log.take();
        EXPECT_EQ(trelm_charnode_exist(path), result) << line;
        EXPECT_EQ(log.take(), lines("trelm_charnode_exist: ", {"entered.", line}));
    }
    EXPECT_EQ(open_descriptors(), before);
    Guarded<dorfc_ioctl> block;
    trelm_priv_db pdb{};
    pdb.drvr_inst = 0x12345;
    EXPECT_EQ(trelm_setup_ioctl_struct(0xABCD, &pdb, &pdb, block.get()), 0U);
    EXPECT_EQ(contents(block),
              Bytes(64)
                  .text(0, "DORFC", 8)
                  .put(20, reinterpret_cast<uint64_t>(&pdb))
                  .put(Field{8, 2, 2}, Field{10, 2, 1}, Field{12, 2, 0xABCD}, Field{18, 2, 0x2345})
                  .all());
    EXPECT_EQ(trelm_setup_ioctl_struct(0, nullptr, nullptr, nullptr), 1U);
}

}  // namespace
