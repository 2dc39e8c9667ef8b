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
        array = GuardedBytes(size_t{elements} * TRELM_LUN_INFO_STRIDE(version));
        memcpy(array.data(), &version, sizeof version);
        auto* to = reinterpret_cast<TRELM_LUN_INFO*>(array.data());
        return TRELM_GetLunInfo(1, 0, 3, &(count = elements), &to);
    }
    const TRELM_LUN_INFO& listed_lun(size_t index) const {
        return reinterpret_cast<const TRELM_LUN_INFO*>(array.data())[index];
    }
    // The first targets, each with this many LUNs.
    void expect_targets(const std::vector<uint32_t>& luns) {
        Bytes expected = Bytes::initial(array.size());
        for (size_t i = 0; i < luns.size(); ++i) {
            const hostsim::Target& target = port().targets.at(i);
            auto& listed = expected.as<TRELM_TGT_INFO>(i * sizeof(TRELM_TGT_INFO));
            set_wwn(listed.WWNN, target.wwnn);
            set_wwn(listed.WWPN, target.wwpn);
            listed.ScsiTgtNum = target.index, listed.PortState = target.state, listed.LunCount = luns[i];
            const uint32_t port_id = __builtin_bswap32(target.port_id);
            memcpy(listed.PortID, &port_id, sizeof port_id);
        }
        EXPECT_EQ(contents(array), expected.all());
        EXPECT_TRUE(array.guards_intact());
    }
    // The length field of a list of LUNs, and its entries if they are given.
    void report(uint32_t length, const std::string& entries = {}) {
        answer_scsi(host, [=](DriverAnswer& answer, dorfc_scsi_cmd& record) {
            const uint32_t header = __builtin_bswap32(length);
            if (record.cdb[0] != 0xA0) return;
            memcpy(answer.data.data(), &header, sizeof header);
            std::copy(entries.begin(), entries.end(), answer.data.begin() + 8);
        });
    }

    LoadedLibrary library{described()};
    hostsim::Host& host = library.host;
    GuardedBytes array{0};
    uint32_t count = 0;
};
TRELM_ON_EACH_DRIVER(Targets);

TEST_P(Targets, AreListedInOrderUntilTheLastThatIsCounted) {
    TRELM_VNPORT_INFO refreshed{};
    for (const auto& [reported, listed, asked] : {std::tuple{4U, std::vector{0U, 2U, 3U, 3U}, 128U},
                                                  {2, {0, 2}, 3},
                                                  {200, {0, 2, 3, 3}, 128},
                                                  {0, {}, 0}}) {
        port().reported_target_count = reported;
        EXPECT_EQ(TRELM_GetVNPortInfo(1, 0, &refreshed), TRELM_STATUS_OK);
        host.clear_calls();
        EXPECT_EQ(list_targets(201), TRELM_STATUS_OK);
        expect_targets(listed);
        EXPECT_EQ(count, reported == 0 ? 0U : 201U) << "the capacity is not changed";
        EXPECT_EQ(host.count_calls(Operation::tgt_info), asked);
        EXPECT_EQ(host.count_calls(Operation::scsi), listed.size());
    }
}

TEST_P(Targets, HaveNoLunsWithoutAnAnswerAndEndAtAFailedRequest) {
    hostsim::Fault deaf = fault(Operation::scsi, {.status = 9});
    deaf.target = 2;
    host.inject(deaf);
    host.inject(fault(Operation::tgt_info, {.error = EIO}, 4));
    EXPECT_EQ(list_targets(4), TRELM_STATUS_DRIVER_ERROR);
    expect_targets({0, 0});
}

TEST_P(Targets, ListLunsWithEveryFieldInBothLayouts) {
    hostsim::Target& target = set_luns({{0, 0x2'0000'0000, 512}, {5, 1, 4096}, {31, 0xFFFFFFFF, 512}});
    hostsim::hosts::add_lun(target, 300, 0x1'0000'0000);
    target.luns[0].device_type = 0x7F;
    const uint64_t rows[][3]{
        {0, 0x7F, 0x400'0000'0000}, {5, 0, 4096}, {31, 0, 0x1FF'FFFF'FE00}, {0x412C, 0, 0x200'0000'0000}};
    for (const uint32_t version : {2U, 1U, 0U, 3U}) {
        const size_t stride = TRELM_LUN_INFO_STRIDE(version);
        host.clear_calls();
        ASSERT_EQ(list_luns(5, version), TRELM_STATUS_OK);
        Bytes expected = Bytes::initial(5 * stride).put(0, version);
        size_t at = 0;
        for (const auto& [number, type, capacity] : rows) {
            auto& lun = expected.as<TRELM_LUN_INFO>(at);
            memcpy(lun.VendorName, "CALVEXA ", 8);
            memcpy(lun.ProductName, "ULVARD VOLUME   ", 16);
            memcpy(lun.ProductRevision, "0500", 4);
            lun.ScsiLunNum = static_cast<uint32_t>(number), lun.DeviceType = static_cast<uint8_t>(type);
            lun.Capacity = capacity;
            if (version == 2) lun.ScsiLunNumExt = 0;
            at += stride;
        }
        EXPECT_EQ(contents(array), expected.all());
        EXPECT_TRUE(array.guards_intact());
        EXPECT_EQ(count, 5U);
    }
    // The commands for the list and for its last LUN, byte by byte.
    const std::vector<hostsim::DriverCall> calls = host.calls();
    ASSERT_EQ(calls.size(), 11U);
    for (const auto& [call, cdb_length, cdb, room] :
         {std::tuple{0U, 12U, "\xA0\0\0\0\0\0\0\0\x40\0\0\0\0\0\0", 16384U},
          {8, 6, "\x12\0\0\0\xFF\0\0\0\0\0\0\0\0\0\0", 256},
          {9, 10, "\x25\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32},
          {10, 16, "\x9E\x10\0\0\0\0\0\0\0\0\0\0\0\x20\0", 32}}) {
        Bytes expected(offsetof(dorfc_scsi_cmd, data_addr));
        auto& command = expected.as<dorfc_scsi_cmd>();
        memcpy(command.cdb, cdb, sizeof command.cdb);
        command.tgt = 3, command.lun = call == 0 ? 0 : 0x412C;
        command.direction = 1, command.cdb_len = static_cast<uint8_t>(cdb_length);
        command.sense_len = 256, command.data_len = room;
        std::vector<uint8_t> sent = payload_of(calls[call]);
        sent.resize(expected.size());
        EXPECT_EQ(sent, expected.all());
    }
}

TEST_P(Targets, RefuseALunListThatDoesNotFit) {
    for (const uint32_t length : {0U, 7U, 25U, 16376U, 16384U, 0x7FFFFFF8U, 0xFFFFFFFFU}) {
        report(length);
        ASSERT_EQ(list_targets(4), TRELM_STATUS_OK);
        expect_targets(std::vector<uint32_t>(4, length / 8));
        const bool fits = length < 16;
        EXPECT_EQ(list_luns(2), fits ? TRELM_STATUS_OK : TRELM_STATUS_INSUFFICIENT_BUFFER);
        EXPECT_EQ(count, fits ? 2U : std::min(length / 8, 2047U));
        EXPECT_TRUE(array.only_written(4));
    }
}

TEST_P(Targets, ListAsManyLunsAsAnAnswerHolds) {
    set_luns({{0, 8, 512}}).luns[0].count = 2100;
    ASSERT_EQ(list_luns(2047), TRELM_STATUS_OK);
    EXPECT_TRUE(array.guards_intact());
    EXPECT_EQ(+listed_lun(2046).ScsiLunNum, 0x4000U | 2046);
}

TEST_P(Targets, AddressLunsOfFourLevels) {
    set_luns({{0, 8, 512}});
    report(24, "\1\2\3\4\5\6\7\10");
    host.clear_calls();
    ASSERT_EQ(list_luns(3), TRELM_STATUS_OK);
    const std::vector<uint8_t> sent = payload_of(host.calls().at(1));
    const auto& command = *reinterpret_cast<const dorfc_scsi_cmd*>(sent.data());
    EXPECT_EQ(std::pair(+command.lun, +command.lun_ext), std::pair(0x03040102U, 0x07080506U));
    EXPECT_EQ(std::pair(+listed_lun(0).ScsiLunNum, +listed_lun(0).ScsiLunNumExt),
              std::pair(0x03040102U, 0x07080506U));
    EXPECT_EQ(+listed_lun(2).ScsiLunNum, 0U) << "entries that were not received are zero";
}

}  // namespace
