// TRELM_GetLunInfo: the layout of both versions, the commands that describe a LUN, lists that lie, and how it
// fails.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

enum Opcode : uint8_t { kInquiry = 0x12, kReadCapacity10 = 0x25, kReadCapacity16 = 0x9E, kReportLuns = 0xA0 };

class Luns : public testing::TestWithParam<DriverKind> {
  protected:
    void load(const std::vector<hostsim::Lun>& luns) {
        hostsim::Model model = hostsim::hosts::ports(GetParam(), 1);
        hostsim::hosts::add_target(model.port(0, 0), 5).luns = luns;
        library_.emplace(model);
        open_port();
        host().clear_calls();
    }
    hostsim::Host& host() { return library_->host; }

    // Asks for a list in an array of so many elements of the version's size.
    uint32_t list(uint32_t elements, uint32_t version = 2) {
        count_ = elements;
        array_.emplace(size_t{elements} * (version == 2 ? 217 : 213));
        memcpy(array_->data(), &version, sizeof version);
        auto* array = reinterpret_cast<TRELM_LUN_INFO*>(array_->data());
        return TRELM_GetLunInfo(1, 0, 5, &count_, &array);
    }
    uint64_t capacity(size_t element) const { return field<uint64_t>(element, 9); }
    uint32_t lun_number(size_t element) const { return field<uint32_t>(element, 4); }
    template <typename Integer>
    Integer field(size_t element, size_t offset) const {
        Integer value;
        memcpy(&value, array_->data() + element * 217 + offset, sizeof value);
        return value;
    }
    // Lets `answer` have the data of every command of one kind.
    template <typename Work>
    void tamper_with(Opcode opcode, const Work& work) {
        host().tamper = [opcode, work](Answer& answer) {
            if (answer.call.operation == Operation::scsi && answer.as<dorfc_scsi_cmd>().cdb[0] == opcode)
                work(answer);
        };
    }
    // The entries of a LUN list.
    void report(const std::vector<std::array<uint8_t, 8>>& entries, uint32_t list_length) {
        tamper_with(kReportLuns, [=](Answer& answer) {
            Bytes list(8 + 8 * entries.size());
            list.put(Field{0, 4, __builtin_bswap32(list_length)});
            for (size_t i = 0; i < entries.size(); ++i) list.copy(8 + 8 * i, entries[i].data(), 8);
            std::copy(list.begin(), list.end(), answer.data.begin());
            answer.as<dorfc_scsi_cmd>().data_len = static_cast<uint32_t>(list.size());
        });
    }

    std::optional<Loaded> library_;
    std::optional<GuardedBytes> array_;
    uint32_t count_ = 0;
};
TRELM_ON_EACH_DRIVER(Luns);

hostsim::Lun lun(uint32_t number, uint64_t blocks, uint32_t block_size = 512) {
    hostsim::Lun lun;
    lun.number = number;
    lun.block_count = blocks;
    lun.block_size = block_size;
    return lun;
}

TEST_P(Luns, BothLayoutsHaveEveryFieldInPlace) {
    load({lun(0, 0x100000), lun(5, 1, 4096), lun(300, 0x2'0000'0000)});
    const std::array<uint32_t, 3> numbers{0, 5, 0x4000 | 300};
    const std::array<uint64_t, 3> capacities{536870912, 4096, 0x400'0000'0000};
    for (const uint32_t version : {2U, 1U, 0U, 3U}) {
        SCOPED_TRACE(version);
        const size_t stride = version == 2 ? 217 : 213;
        ASSERT_EQ(list(4, version), TRELM_STATUS_OK);
        Bytes expected = Bytes::initial(4 * stride).put(Field{0, 4, version});
        for (size_t i = 0; i < 3; ++i) {
            const size_t at = i * stride;
            expected.copy(at + 17, "CALVEXA ", 8)
                .copy(at + 33, "ULVARD VOLUME   ", 16)
                .copy(at + 65, "0500", 4)
                .put(Field{at + 4, 4, numbers[i]}, Field{at + 8, 1, 0}, Field{at + 9, 8, capacities[i]});
            if (version == 2) expected.put(Field{at + 213, 4, 0});
        }
        EXPECT_EQ(contents(*array_), expected.all());
        EXPECT_TRUE(array_->guards_intact());
        EXPECT_EQ(count_, 4U);
    }
}

TEST_P(Luns, AllLevelsOfAnAddressArriveAndGoBack) {
    load({lun(0, 1)});
    report({{0, 5, 0, 0, 0, 0, 0, 0}, {0x40, 1, 0, 0, 0, 0, 0, 0}, {1, 2, 3, 4, 5, 6, 7, 8}}, 24);
    std::vector<Bytes> addressed;
    const auto report_luns = host().tamper;
    host().tamper = [&, report_luns](Answer& answer) {
        report_luns(answer);
        answer.status = 0;
        auto& command = answer.as<dorfc_scsi_cmd>();
        if (command.cdb[0] == kInquiry) addressed.push_back(Bytes(12).copy(0, &command, 12));
        if (command.cdb[0] == kInquiry) answer.data[0] = 0x7F;
    };
    ASSERT_EQ(list(3), TRELM_STATUS_OK);
    const std::array<std::pair<uint32_t, uint32_t>, 3> expected{
        {{5, 0}, {0x4001, 0}, {0x03040102, 0x07080506}}};
    ASSERT_EQ(addressed.size(), 3U);
    for (size_t i = 0; i < 3; ++i) {
        const auto [low, high] = expected[i];
        EXPECT_EQ(lun_number(i), low);
        EXPECT_EQ(field<uint32_t>(i, 213), high);
        EXPECT_EQ(field<uint8_t>(i, 8), 0x7F) << "the peripheral qualifier is kept";
        EXPECT_EQ(addressed[i], Bytes(12).put(Field{0, 4, high}, Field{4, 4, 5}, Field{8, 4, low}));
    }
}

// The records of the commands for one LUN that is too large for the short capacity command.
TEST_P(Luns, ALunIsDescribedByTheseCommands) {
    load({lun(300, 0x2'0000'0000)});
    ASSERT_EQ(list(1), TRELM_STATUS_OK);
    const std::vector<Bytes> expected{
        scsi_record(5, 0, 12, "\xA0\0\0\0\0\0\0\0\x40\0\0\0\0\0\0\0", 16384),
        scsi_record(5, 0x412C, 6, "\x12\0\0\0\xFF\0\0\0\0\0\0\0\0\0\0\0", 256),
        scsi_record(5, 0x412C, 10, "\x25\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32),
        scsi_record(5, 0x412C, 16, "\x9E\x10\0\0\0\0\0\0\0\0\0\0\0\x20\0\0", 32)};
    const std::vector<hostsim::Call> calls = host().calls();
    ASSERT_EQ(calls.size(), expected.size());
    for (size_t i = 0; i < calls.size(); ++i) {
        const std::vector<uint8_t> sent = payload_of(calls[i]);
        EXPECT_EQ(to_vector(std::span(sent).first(292)), expected[i].all());
    }
}

TEST_P(Luns, TheLongCapacityCommandIsDecidedAfreshForEveryLun) {
    load({lun(0, 0x2'0000'0000), lun(1, 2048), lun(2, 0xFFFFFFFF), lun(3, 0x1'0000'0000),
          lun(4, 0xFFFFFFFE, 4096)});
    LogCapture log(kErrorLines);
    log.take();
    ASSERT_EQ(list(5), TRELM_STATUS_OK);
    EXPECT_EQ(capacity(0), 0x400'0000'0000U);
    EXPECT_EQ(capacity(1), 2048U * 512);
    EXPECT_EQ(capacity(2), 0xFFFFFFFFULL * 512) << "the last address that fits";
    EXPECT_EQ(capacity(3), 0x1'0000'0000ULL * 512);
    EXPECT_EQ(capacity(4), 0xFFFFFFFEULL * 4096);
    EXPECT_THAT(log.take(), ElementsAre("TRELM_GetLunInfo(1): trying read capacity(16) cmd for lun=0",
                                        "TRELM_GetLunInfo(1): trying read capacity(16) cmd for lun=3"));
}

TEST_P(Luns, AnArrayTooSmallIsToldTheCountAndATargetWithoutLunsWritesNothing) {
    load({lun(0, 1), lun(1, 1), lun(2, 1)});
    LogCapture log;
    log.take();
    for (const uint32_t room : {1U, 2U}) {
        EXPECT_EQ(list(room), TRELM_STATUS_INSUFFICIENT_BUFFER);
        EXPECT_EQ(count_, 3U);
        EXPECT_TRUE(array_->only_written({{0, 4}}));
        EXPECT_EQ(log.take_of("TRELM_GetLunInfo"),
                  lines("TRELM_GetLunInfo(1): ", {fmt::format("entered for NPIV=0 and LunCount={}", room),
                                                  "invalid Lun Count value."}));
    }
    report({}, 0);
    EXPECT_EQ(list(2), TRELM_STATUS_OK);
    EXPECT_EQ(count_, 2U);
    EXPECT_TRUE(array_->only_written({{0, 4}}));
    EXPECT_THAT(log.take_of("TRELM_GetLunInfo"),
                ElementsAre("TRELM_GetLunInfo(1): entered for NPIV=0 and LunCount=2",
                            "TRELM_GetLunInfo(1): exiting, rval=0"));
}

TEST_P(Luns, ArgumentsAreCheckedBeforeAnythingIsSent) {
    load({lun(0, 1)});
    TRELM_LUN_INFO info{};
    TRELM_LUN_INFO* array = &info;
    TRELM_LUN_INFO* none = nullptr;
    uint32_t one = 1, zero = 0;
    LogCapture log;
    log.take();
    EXPECT_EQ(TRELM_GetLunInfo(1, 0, 128, &one, &array), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetLunInfo(9, 4, 5, &zero, &array), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetLunInfo(1, 0, 5, &one, &none), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetLunInfo(1, 0, 5, &one, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetLunInfo(1, 0, 5, nullptr, &array), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(host().calls().empty());
    const Lines lines = log.take();
    ASSERT_EQ(lines.size(), 10U);
    EXPECT_THAT(Lines(lines.begin() + 2, lines.begin() + 4),
                ElementsAre("TRELM_GetLunInfo(9): entered for NPIV=4 and LunCount=0",
                            "TRELM_GetLunInfo(9): invalid parameter."));
    EXPECT_EQ(lines[8], "TRELM_GetLunInfo(1): entered for NPIV=0 and LunCount=0")
        << "a null count is shown as 0";

    EXPECT_EQ(TRELM_GetLunInfo(1, 0, 127, &one, &array), 0x6000000DU) << "there is no such target";
    EXPECT_EQ(TRELM_GetLunInfo(9, 0, 5, &one, &array), TRELM_STATUS_FAILED);
    EXPECT_EQ(log.take_of("TRELM_GetLunInfo").back(),
              "TRELM_GetLunInfo(9): send scsi report luns cmd failed, rval=60000001h");
}

TEST_P(Luns, ACommandThatFailsEndsTheListAndIsNamed) {
    load({lun(0, 1), lun(0x1F, 1), lun(0x20, 0x2'0000'0000)});
    struct Row {
        uint8_t opcode;
        uint64_t occurrence;
        const char* line;
        size_t filled;
    };
    LogCapture log(kErrorLines);
    for (const Row& row :
         {Row{kReportLuns, 1, "send scsi report luns cmd failed, rval=60000006h", 0},
          {kInquiry, 2, "send scsi inquiry cmd failed for lun=1Fh, rval=60000006h", 1},
          {kReadCapacity10, 1, "scsi read capacity cmd failed for lun=0, rval=60000006h", 0},
          {kReadCapacity10, 2, "scsi read capacity cmd failed for lun=1Fh, rval=60000006h", 1},
          {kReadCapacity16, 1, "scsi read capacity cmd failed for lun=20h, rval=60000006h", 2}}) {
        SCOPED_TRACE(row.line);
        uint64_t seen = 0;
        tamper_with(static_cast<Opcode>(row.opcode), [&](Answer& answer) {
            if (++seen == row.occurrence) answer.status = 6;
        });
        log.take();
        EXPECT_EQ(list(3), 0x60000006U);
        EXPECT_EQ(log.take_of("TRELM_GetLunInfo").back(), std::string("TRELM_GetLunInfo(1): ") + row.line);
        EXPECT_TRUE(array_->only_written({{0, std::max<size_t>(4, row.filled * 217)}}));
        if (row.filled) {
            EXPECT_EQ(capacity(row.filled - 1), 512U);
        }
        EXPECT_EQ(count_, 3U);
    }
}

TEST_P(Luns, AListLengthThatLiesReadsNothingBeyondTheBuffer) {
    load({lun(0, 1)});
    report({{0, 0, 0, 0, 0, 0, 0, 0}}, 24);
    EXPECT_EQ(list(3), TRELM_STATUS_OK);
    EXPECT_EQ(lun_number(2), 0U) << "entries that did not come read as zero";
    for (const uint32_t length : {16384U, 16376U + 8, 0x7FFFFFF8U, 0xFFFFFFFFU}) {
        report({}, length);
        EXPECT_EQ(list(1), TRELM_STATUS_INSUFFICIENT_BUFFER);
        EXPECT_EQ(count_, 2047U);
    }
    EXPECT_EQ(list(2047), TRELM_STATUS_OK);
    EXPECT_TRUE(array_->guards_intact());
}

TEST_P(Luns, ATargetMayHaveAsManyAsAListHolds) {
    hostsim::Lun many = lun(0, 8);
    many.count = 2100;
    load({many});
    EXPECT_EQ(list(1), TRELM_STATUS_INSUFFICIENT_BUFFER);
    ASSERT_EQ(count_, 2047U);
    ASSERT_EQ(list(2047), TRELM_STATUS_OK);
    for (const uint32_t number : {0U, 255U, 256U, 2046U}) {
        EXPECT_EQ(lun_number(number), number > 255 ? 0x4000 | number : number);
        EXPECT_EQ(capacity(number), 8U * 512);
    }
    EXPECT_TRUE(array_->guards_intact());
    EXPECT_EQ(host().count_calls(Operation::scsi), 2U + 2 * 2047);
}

}  // namespace
