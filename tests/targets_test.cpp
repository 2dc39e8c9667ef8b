// TRELM_GetTgtInfo: which targets are listed and how, what each costs, and how the list fails.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

using TargetsWithLuns = std::vector<std::pair<uint32_t, uint32_t>>;

// A host whose first port has targets as a test wants them.
class Targets : public testing::TestWithParam<DriverKind> {
  protected:
    // The port may report a count of its own.
    void load(const TargetsWithLuns& targets, uint32_t reported) {
        hostsim::Model model = hostsim::hosts::ports(GetParam(), 1);
        for (const auto& [index, luns] : targets) {
            hostsim::Target& target = hostsim::hosts::add_target(model.port(0, 0), index, luns);
            target.wwnn = 0x5000'0000'0000'1000 + index;
            target.wwpn = 0x5000'0000'0000'2000 + index;
            target.port_id = 0x00D1A200 + index;
            target.state = static_cast<uint16_t>(0x8000 + index);
        }
        model.port(0, 0).reported_target_count = reported;
        library_.emplace(model);
        open_port();
        host().clear_calls();
    }
    void load(const TargetsWithLuns& targets) { load(targets, static_cast<uint32_t>(targets.size())); }
    hostsim::Host& host() { return library_->host; }

    // Asks for a list in an array of so many elements.
    uint32_t list(uint32_t elements) {
        count_ = elements;
        array_.emplace(34 * size_t{elements});
        auto* array = reinterpret_cast<TRELM_TGT_INFO*>(array_->data());
        const uint32_t code = TRELM_GetTgtInfo(1, 0, &count_, &array);
        EXPECT_TRUE(array_->guards_intact());
        return code;
    }
    void expect_elements(const TargetsWithLuns& targets) const {
        Bytes expected = Bytes::initial(array_->size());
        size_t at = 0;
        for (const auto& [index, luns] : targets) {
            expected.wwn(at + 8, 0x5000'0000'0000'1000 + index)
                .wwn(at + 16, 0x5000'0000'0000'2000 + index)
                .put(Field{at + 4, 4, index}, Field{at + 24, 4, __builtin_bswap32(0x00D1A200 + index)},
                     Field{at + 28, 2, 0x8000 + index}, Field{at + 30, 4, luns});
            at += 34;
        }
        EXPECT_EQ(contents(*array_), expected.all());
    }

    std::optional<Loaded> library_;
    std::optional<GuardedBytes> array_;
    uint32_t count_ = 0;
};
TRELM_ON_EACH_DRIVER(Targets);

TEST_P(Targets, AreListedInOrderUntilTheLastThatIsCounted) {
    load({{0, 2}, {1, 0}, {77, 1}, {127, 3}});
    EXPECT_EQ(list(6), TRELM_STATUS_OK);
    expect_elements({{0, 2}, {1, 0}, {77, 1}, {127, 3}});
    EXPECT_EQ(count_, 6U) << "the capacity is not changed";
    EXPECT_EQ(host().count_calls(Operation::tgt_info), 128U);
    EXPECT_EQ(host().count_calls(Operation::scsi), 4U);
    library_.reset();
    load({{0, 1}, {5, 1}, {9, 1}}, 2);
    EXPECT_EQ(list(2), TRELM_STATUS_OK);
    expect_elements({{0, 1}, {5, 1}});
    EXPECT_EQ(host().count_calls(Operation::tgt_info), 6U);
    library_.reset();
    load({{0, 1}}, 200);
    LogCapture log(kErrorLines);
    EXPECT_EQ(list(200), TRELM_STATUS_OK);
    expect_elements({{0, 1}});
    EXPECT_EQ(count_, 200U);
    EXPECT_EQ(log.take_of("TRELM_GetTgtInfo").back(),
              "TRELM_GetTgtInfo(1): got index=128 which is above max supported value of=128");
}

TEST_P(Targets, AnArrayTooSmallIsToldTheCountAndBadArgumentsAreRefused) {
    load({{0, 1}, {1, 1}, {2, 1}});
    for (const uint32_t room : {0U, 1U, 2U}) {
        EXPECT_EQ(list(room), TRELM_STATUS_INSUFFICIENT_BUFFER);
        EXPECT_EQ(count_, 3U);
        EXPECT_TRUE(array_->untouched());
    }
    TRELM_TGT_INFO* none = nullptr;
    uint32_t count = 0;
    EXPECT_EQ(TRELM_GetTgtInfo(1, 0, &count, nullptr), TRELM_STATUS_INSUFFICIENT_BUFFER);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(TRELM_GetTgtInfo(1, 0, &count, &none), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetTgtInfo(1, 0, &count, nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetTgtInfo(9, 0, nullptr, &none), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetTgtInfo(9, 0, &count, &none), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_GetTgtInfo(1, 7, &count, &none), TRELM_STATUS_FAILED);
    EXPECT_EQ(count, 3U);
    EXPECT_TRUE(host().calls().empty());
    library_.reset();
    load({});
    LogCapture log;
    log.take();
    EXPECT_EQ(TRELM_GetTgtInfo(1, 0, &count, nullptr), TRELM_STATUS_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(log.take(), lines("TRELM_GetTgtInfo(1): ", {"entered.", "No targets present."}));
}

TEST_P(Targets, OneThatFailsReportLunsIsListedWithoutLuns) {
    load({{2, 4}, {3, 1}});
    hostsim::Fault deaf = fault(Operation::scsi, {.status = 9});
    deaf.target = 2;
    host().inject(deaf);
    LogCapture log;
    log.take();
    EXPECT_EQ(list(2), TRELM_STATUS_OK);
    expect_elements({{2, 0}, {3, 1}});
    EXPECT_EQ(
        log.take_of("TRELM_GetTgtInfo"),
        lines("TRELM_GetTgtInfo(1): ", {"entered.", "device offline for index=0 continuing for next index",
                                        "device offline for index=1 continuing for next index",
                                        "send scsi cmd failed, rval=60000009h", "exiting, rval=0"}));
}

TEST_P(Targets, OfflineIsAStatusAndWhatElseFailsEndsTheList) {
    load({{0, 1}, {1, 1}});
    expect_failures_translated(host(), Operation::tgt_info, [&] {
        const uint32_t code = list(2);
        // Status 13 means an offline target: with all of them offline the list is empty.
        return code == TRELM_STATUS_OK ? 0x6000000D : code;
    });
    host().tamper = [](Answer& answer) {
        if (answer.call.operation != Operation::tgt_info || payload_of(answer.call)[4] == 0) return;
        answer.result = -1;
        answer.error = EIO;
    };
    LogCapture log;
    log.take();
    EXPECT_EQ(list(2), TRELM_STATUS_DRIVER_ERROR);
    expect_elements({{0, 1}});
    EXPECT_EQ(log.take_of("TRELM_GetTgtInfo"),
              lines("TRELM_GetTgtInfo(1): ", {"entered.", "tgt info ioctl failed, stat=0 errno=5"}));
}

// Both requests of a target, byte by byte; and the count is the header's, whatever else came.
TEST_P(Targets, EachIsAskedForByIndexAndThenForItsLuns) {
    load({{3, 1}});
    ASSERT_EQ(list(1), TRELM_STATUS_OK);
    const std::vector<hostsim::Call> asked = calls_of(host(), Operation::tgt_info);
    ASSERT_EQ(asked.size(), 4U);
    for (uint32_t index = 0; index < 4; ++index) {
        EXPECT_EQ(payload_of(asked[index]), Bytes(64).put(Field{4, 4, index}).all());
    }
    const std::vector<uint8_t> sent = payload_of(calls_of(host(), Operation::scsi).at(0));
    EXPECT_EQ(to_vector(std::span(sent).first(292)),
              scsi_record(3, 0, 12, "\xA0\0\0\0\0\0\0\0\x40\0\0\0\0\0\0\0", 16384).all());
    for (const uint32_t length : {0U, 7U, 8U, 24U, 25U, 16376U, 16384U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        answer_scsi(host(), [header = __builtin_bswap32(length)](Answer& answer, dorfc_scsi_cmd&) {
            memcpy(answer.data.data(), &header, sizeof header);
        });
        ASSERT_EQ(list(1), TRELM_STATUS_OK);
        expect_elements({{3, length >> 3}});
    }
}

}  // namespace
