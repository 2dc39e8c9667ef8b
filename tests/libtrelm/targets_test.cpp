// TRELM_GetTgtInfo and TRELM_GetLunInfo: which targets and LUNs are listed, the commands for that, and lists
// that are wrong or fail.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

class Targets : public testing::TestWithParam<DriverKind> {
  protected:
    static hostsim::Model described() {
        hostsim::Model model = hostsim::hosts::ports(GetParam(), 1);
        for (const uint32_t index : {0U, 2U, 3U, 127U}) {
            hostsim::Target& target = hostsim::hosts::add_target(model.port(0, 0), index, index % 4);
            target.port_id = 0x00D1A200 + index, target.state = static_cast<uint16_t>(0x8000 + index);
        }
        return model;
    }
    Targets() { open_port(); }

    hostsim::Port& port() { return host.model().port(0, 0); }
    // Number, block count and block size of each LUN of the third target.
    hostsim::Target& set_luns(const std::vector<std::array<uint64_t, 3>>& luns) {
        port().targets[2].luns.clear();
        for (const auto& [number, blocks, size] : luns)
            hostsim::hosts::add_lun(port().targets[2], uint32_t(number), blocks, uint32_t(size));
        return port().targets[2];
    }
    // Request a list into an array of this many elements.
    uint32_t list_targets(uint32_t elements) {
        array = GuardedBytes(34 * size_t{elements});
        auto* to = reinterpret_cast<TRELM_TGT_INFO*>(array.data());
        return TRELM_GetTgtInfo(1, 0, &(count = elements), &to);
    }
    uint32_t list_luns(uint32_t elements, uint32_t version = 2) {
        array = GuardedBytes(size_t{elements} * (version == 2 ? 217 : 213));
        memcpy(array.data(), &version, sizeof version);
        auto* to = reinterpret_cast<TRELM_LUN_INFO*>(array.data());
        return TRELM_GetLunInfo(1, 0, 3, &(count = elements), &to);
    }
    // The first targets, each with this many LUNs.
    void expect_targets(const std::vector<uint32_t>& luns) {
        Bytes expected = Bytes::initial(array.size());
        for (size_t i = 0; i < luns.size(); ++i) {
            const hostsim::Target& target = port().targets.at(i);
            expected.wwn(34 * i + 8, target.wwnn)
                .wwn(34 * i + 16, target.wwpn)
                .put(Field{34 * i + 4, 4, target.index},
                     Field{34 * i + 24, 4, __builtin_bswap32(target.port_id)},
                     Field{34 * i + 28, 2, target.state}, Field{34 * i + 30, 4, luns[i]});
        }
        EXPECT_EQ(contents(array), expected.all());
        EXPECT_TRUE(array.guards_intact());
    }
    // The length field of a list of LUNs, and its entries if they are given.
    void report(uint32_t length, const std::string& entries = {}) {
        answer_scsi(host, [=](Answer& answer, dorfc_scsi_cmd& record) {
            const uint32_t header = __builtin_bswap32(length);
            if (record.cdb[0] != 0xA0) return;
            memcpy(answer.data.data(), &header, sizeof header);
            std::copy(entries.begin(), entries.end(), answer.data.begin() + 8);
        });
    }

    LoadedLibrary library{described()};
    hostsim::Host& host = library.host;
    LogCapture log;
    GuardedBytes array{0};
    uint32_t count = 0;
};
TRELM_ON_EACH_DRIVER(Targets);

TEST_P(Targets, AreListedInOrderUntilTheLastThatIsCounted) {
    const char* const ends[]{"exiting, rval=0", "got index=128 which is above max supported value of=128",
                             "No targets present."};
    TRELM_VNPORT_INFO refreshed{};
    for (const auto& [reported, listed, asked, end] : {std::tuple{4U, std::vector{0U, 2U, 3U, 3U}, 128U, 0},
                                                       {2, {0, 2}, 3, 0},
                                                       {200, {0, 2, 3, 3}, 128, 1},
                                                       {0, {}, 0, 2}}) {
        port().reported_target_count = reported;
        EXPECT_EQ(TRELM_GetVNPortInfo(1, 0, &refreshed), TRELM_STATUS_OK);
        host.clear_calls();
        EXPECT_EQ(list_targets(201), TRELM_STATUS_OK);
        expect_targets(listed);
        EXPECT_EQ(count, reported == 0 ? 0U : 201U) << "the capacity is not changed";
        EXPECT_EQ(host.count_calls(Operation::tgt_info), asked);
        EXPECT_EQ(host.count_calls(Operation::scsi), listed.size());
        EXPECT_EQ(log.take_of("TRELM_GetTgtInfo").back(), std::string("TRELM_GetTgtInfo(1): ") + ends[end]);
    }
}

TEST_P(Targets, OneThatDoesNotReportItsLunsHasNoneAndOneThatIsNotToldEndsTheList) {
    hostsim::Fault deaf = fault(Operation::scsi, {.status = 9});
    deaf.target = 2;
    host.inject(deaf);
    host.inject(fault(Operation::tgt_info, {.error = EIO}, 4));
    log.take();
    EXPECT_EQ(list_targets(4), TRELM_STATUS_DRIVER_ERROR);
    expect_targets({0, 0});
    EXPECT_EQ(log.take_of("TRELM_GetTgtInfo"),
              lines("TRELM_GetTgtInfo(1): ",
                    {"entered.", "device offline for index=1 continuing for next index",
                     "send scsi cmd failed, rval=60000009h", "tgt info ioctl failed, stat=0 errno=5"}));
}

TEST_P(Targets, AListOfLunsHasEveryFieldInPlaceInBothLayouts) {
    hostsim::Target& target = set_luns({{0, 0x2'0000'0000, 512}, {5, 1, 4096}, {31, 0xFFFFFFFF, 512}});
    hostsim::hosts::add_lun(target, 300, 0x1'0000'0000);
    target.luns[0].device_type = 0x7F;
    const uint64_t rows[][3]{
        {0, 0x7F, 0x400'0000'0000}, {5, 0, 4096}, {31, 0, 0x1FF'FFFF'FE00}, {0x412C, 0, 0x200'0000'0000}};
    for (const uint32_t version : {2U, 1U, 0U, 3U}) {
        const size_t stride = version == 2 ? 217 : 213;
        host.clear_calls();
        log.take();
        ASSERT_EQ(list_luns(5, version), TRELM_STATUS_OK);
        Bytes expected = Bytes::initial(5 * stride).put(Field{0, 4, version});
        size_t at = 0;
        for (const auto& [number, type, capacity] : rows) {
            expected.text(at + 17, "CALVEXA ", 8)
                .text(at + 33, "ULVARD VOLUME   ", 16)
                .text(at + 65, "0500", 4);
            expected.put(Field{at + 4, 4, number}, Field{at + 8, 1, type}, Field{at + 9, 8, capacity});
            if (version == 2) expected.put(Field{at + 213, 4, 0});
            at += stride;
        }
        EXPECT_EQ(contents(array), expected.all());
        EXPECT_TRUE(array.guards_intact());
        EXPECT_EQ(count, 5U);
        EXPECT_EQ(log.take_of("TRELM_GetLunInfo"),
                  lines("TRELM_GetLunInfo(1): ",
                        {"entered for NPIV=0 and LunCount=5", "trying read capacity(16) cmd for lun=0",
                         "trying read capacity(16) cmd for lun=412Ch", "exiting, rval=0"}));
    }
    // The commands for the list and for its last LUN, byte by byte.
    const std::vector<hostsim::Call> calls = host.calls();
    ASSERT_EQ(calls.size(), 11U);
    for (const auto& [call, cdb_length, cdb, room] :
         {std::tuple{0U, 12U, "\xA0\0\0\0\0\0\0\0\x40\0\0\0\0\0\0", 16384U},
          {8, 6, "\x12\0\0\0\xFF\0\0\0\0\0\0\0\0\0\0", 256},
          {9, 10, "\x25\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32},
          {10, 16, "\x9E\x10\0\0\0\0\0\0\0\0\0\0\0\x20\0", 32}}) {
        std::vector<uint8_t> sent = payload_of(calls[call]);
        sent.resize(292);
        EXPECT_EQ(sent, Bytes(292)
                            .copy(14, cdb, 16)
                            .put(Field{4, 4, 3}, Field{8, 4, call == 0 ? 0U : 0x412C}, Field{12, 1, 1},
                                 Field{13, 1, cdb_length}, Field{30, 2, 256}, Field{288, 4, room})
                            .all());
    }
}

TEST_P(Targets, ACommandThatFailsEndsTheListOfLunsAndIsNamed) {
    set_luns({{0, 1, 512}, {0x1F, 1, 512}, {0x20, 0x2'0000'0000, 512}});
    for (const auto& [opcode, occurrence, filled, line] :
         {std::tuple{0xA0, 1U, 0U, "send scsi report luns cmd failed, rval=60000006h"},
          {0x12, 2, 1, "send scsi inquiry cmd failed for lun=1Fh, rval=60000006h"},
          {0x25, 1, 0, "scsi read capacity cmd failed for lun=0, rval=60000006h"},
          {0x9E, 1, 2, "scsi read capacity cmd failed for lun=20h, rval=60000006h"}}) {
        hostsim::Fault fails = fault(Operation::scsi, {.status = 6}, occurrence);
        fails.opcode = static_cast<uint8_t>(opcode);
        host.edit([&fails](hostsim::Model& model) { model.faults = {fails}; });
        EXPECT_EQ(list_luns(3), 0x60000006U);
        EXPECT_EQ(log.take_of("TRELM_GetLunInfo").back(), std::string("TRELM_GetLunInfo(1): ") + line);
        EXPECT_TRUE(array.only_written(std::max(4U, filled * 217)));
        EXPECT_EQ(count, 3U);
    }
}

TEST_P(Targets, AListOfLunsIsTakenAtItsWordNoFurtherThanItsBuffer) {
    for (const uint32_t length : {0U, 7U, 25U, 16376U, 16384U, 0x7FFFFFF8U, 0xFFFFFFFFU}) {
        report(length);
        ASSERT_EQ(list_targets(4), TRELM_STATUS_OK);
        expect_targets(std::vector<uint32_t>(4, length / 8));
        const bool fits = length < 16;
        EXPECT_EQ(list_luns(2), fits ? TRELM_STATUS_OK : TRELM_STATUS_INSUFFICIENT_BUFFER);
        EXPECT_EQ(count, fits ? 2U : std::min(length / 8, 2047U));
        EXPECT_TRUE(array.only_written(4));
        EXPECT_EQ(
            log.take_of("TRELM_GetLunInfo").back(),
            std::string("TRELM_GetLunInfo(1): ") + (fits ? "exiting, rval=0" : "invalid Lun Count value."));
    }
    host.tamper = nullptr;
    set_luns({{0, 8, 512}}).luns[0].count = 2100;
    ASSERT_EQ(list_luns(2047), TRELM_STATUS_OK);
    EXPECT_TRUE(array.guards_intact());
    const auto number = [](const uint8_t* at) {
        uint32_t value = 0;
        memcpy(&value, at, sizeof value);
        return value;
    };
    EXPECT_EQ(number(array.data() + 2046 * 217 + 4), 0x4000U | 2046);
    // An address has four levels. Entries that were not received are zero.
    set_luns({{0, 8, 512}});
    report(24, "\1\2\3\4\5\6\7\10");
    host.clear_calls();
    ASSERT_EQ(list_luns(3), TRELM_STATUS_OK);
    const std::vector<uint8_t> sent = payload_of(host.calls().at(1));
    const uint8_t* const first = array.data();
    EXPECT_THAT((std::array{number(&sent[0]), number(&sent[8]), number(first + 4), number(first + 213)}),
                ElementsAre(0x07080506, 0x03040102, 0x03040102, 0x07080506));
    EXPECT_EQ(number(first + 2 * 217 + 4) + number(first + 2 * 217 + 213), 0U);
}

}  // namespace
