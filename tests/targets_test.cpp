// TRELM_GetTgtInfo: which targets are listed and how, what each costs, and how the list fails.
#include <gmock/gmock.h>

#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"
#include "trelm_driver_records.h"

namespace {

using namespace trelm::test;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::Each;
using testing::ElementsAre;

// A host whose first port has targets as a test wants them.
class Targets : public testing::TestWithParam<DriverKind> {
  protected:
    void load(const std::vector<std::pair<uint32_t, size_t>>& targets_with_luns) {
        hostsim::Model model = hostsim::hosts::ports(GetParam(), 1);
        for (const auto& [index, luns] : targets_with_luns) {
            hostsim::Target& target = hostsim::hosts::add_target(model.port(0, 0), index, luns);
            target.wwnn = 0x5000'0000'0000'1000 + index;
            target.wwpn = 0x5000'0000'0000'2000 + index;
            target.port_id = 0x00D1A200 + index;
            target.state = static_cast<uint16_t>(0x8000 + index);
        }
        library_.emplace(model);
        open_port();
        host().clear_calls();
    }
    hostsim::Host& host() { return library_->host; }

    // Asks for a list in an array of so many elements.
    uint32_t list(size_t elements) {
        count_ = static_cast<uint32_t>(elements);
        array_.emplace(34 * elements);
        auto* array = reinterpret_cast<TRELM_TGT_INFO*>(array_->data());
        return TRELM_GetTgtInfo(1, 0, &count_, &array);
    }
    Bytes expect_elements(const std::vector<std::pair<uint32_t, uint32_t>>& targets_with_luns) const {
        Bytes expected = Bytes::initial(array_->size());
        size_t at = 0;
        for (const auto& [index, luns] : targets_with_luns) {
            expected.put(at + 4, index)
                .wwn(at + 8, 0x5000'0000'0000'1000 + index)
                .wwn(at + 16, 0x5000'0000'0000'2000 + index)
                .put(at + 24, __builtin_bswap32(0x00D1A200 + index))
                .put(at + 28, static_cast<uint16_t>(0x8000 + index))
                .put(at + 30, luns);
            at += 34;
        }
        return expected;
    }

    std::optional<Loaded> library_;
    std::optional<GuardedBytes> array_;
    uint32_t count_ = 0;
};
TRELM_ON_EACH_DRIVER(Targets);

TEST_P(Targets, AreListedInOrderWithTheirOwnNumbers) {
    load({{0, 2}, {1, 0}, {77, 1}, {127, 3}});
    EXPECT_EQ(list(6), TRELM_STATUS_OK);
    EXPECT_EQ(contents(*array_), expect_elements({{0, 2}, {1, 0}, {77, 1}, {127, 3}}).all());
    EXPECT_TRUE(array_->guards_intact());
    EXPECT_EQ(count_, 6U) << "the capacity is not changed";
    EXPECT_EQ(host().count_calls(Operation::tgt_info), 128U);
    EXPECT_EQ(host().count_calls(Operation::scsi), 4U);
}

TEST_P(Targets, TheWalkEndsWithTheLastTargetWanted) {
    load({{0, 1}, {5, 1}, {9, 1}});
    host().model().port(0, 0).reported_target_count = 2;
    TRELM_VNPORT_INFO port{};
    ASSERT_EQ(TRELM_GetVNPortInfo(1, 0, &port), TRELM_STATUS_OK);
    EXPECT_EQ(list(2), TRELM_STATUS_OK);
    EXPECT_EQ(contents(*array_), expect_elements({{0, 1}, {5, 1}}).all());
    EXPECT_EQ(host().count_calls(Operation::tgt_info), 6U);
}

TEST_P(Targets, AnArrayTooSmallIsToldTheCount) {
    load({{0, 1}, {1, 1}, {2, 1}});
    for (const size_t room : {0U, 1U, 2U}) {
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
    EXPECT_EQ(TRELM_GetTgtInfo(1, 0, nullptr, &none), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetTgtInfo(9, 0, nullptr, &none), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetTgtInfo(9, 0, &count, &none), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_GetTgtInfo(1, 7, &count, &none), TRELM_STATUS_FAILED);
    EXPECT_EQ(count, 3U);
    EXPECT_TRUE(host().calls().empty());
}

TEST_P(Targets, APortWithoutTargetsSaysSo) {
    load({});
    LogCapture log;
    log.take();
    uint32_t count = 5;
    TRELM_TGT_INFO* none = nullptr;
    EXPECT_EQ(TRELM_GetTgtInfo(1, 0, &count, &none), TRELM_STATUS_OK);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(TRELM_GetTgtInfo(1, 0, &count, nullptr), TRELM_STATUS_OK);
    EXPECT_THAT(log.take(),
                ElementsAre("TRELM_GetTgtInfo(1): entered.", "TRELM_GetTgtInfo(1): No targets present.",
                            "TRELM_GetTgtInfo(1): entered.", "TRELM_GetTgtInfo(1): No targets present."));
}

TEST_P(Targets, OneThatFailsReportLunsIsListedWithoutLuns) {
    load({{2, 4}, {3, 1}});
    hostsim::Fault deaf = fault(Operation::scsi, {.status = 9});
    deaf.target = 2;
    host().inject(deaf);
    LogCapture log;
    log.take();
    EXPECT_EQ(list(2), TRELM_STATUS_OK);
    EXPECT_EQ(contents(*array_), expect_elements({{2, 0}, {3, 1}}).all());
    EXPECT_THAT(log.take_of("TRELM_GetTgtInfo"),
                ElementsAre("TRELM_GetTgtInfo(1): entered.",
                            "TRELM_GetTgtInfo(1): device offline for index=0 continuing for next index",
                            "TRELM_GetTgtInfo(1): device offline for index=1 continuing for next index",
                            "TRELM_GetTgtInfo(1): send scsi cmd failed, rval=60000009h",
                            "TRELM_GetTgtInfo(1): exiting, rval=0"));
}

TEST_P(Targets, ADriverThatCountsMoreThanItHasEndsTheWalkAfterTheLastIndex) {
    load({{0, 1}});
    host().model().port(0, 0).reported_target_count = 200;
    TRELM_VNPORT_INFO port{};
    ASSERT_EQ(TRELM_GetVNPortInfo(1, 0, &port), TRELM_STATUS_OK);
    LogCapture log(kErrorLines);
    EXPECT_EQ(list(200), TRELM_STATUS_OK);
    EXPECT_EQ(contents(*array_), expect_elements({{0, 1}}).all());
    EXPECT_EQ(count_, 200U);
    EXPECT_EQ(log.take_of("TRELM_GetTgtInfo").back(),
              "TRELM_GetTgtInfo(1): got index=128 which is above max supported value of=128");
}

TEST_P(Targets, OfflineIsAStatusAndWhatElseFailsEndsTheList) {
    load({{0, 1}, {1, 1}});
    expect_failures_translated(host(), Operation::tgt_info, [&] {
        const uint32_t code = list(2);
        // Status 13 means an offline target, whatever the call returned: with all of them offline the list is
        // empty.
        return code == TRELM_STATUS_OK ? 0x6000000D : code;
    });
    host().tamper = [](hostsim::Answer& answer) {
        if (answer.call.operation != Operation::tgt_info) return;
        uint32_t index = 0;
        memcpy(&index, payload_of(answer.call).data() + 4, sizeof index);
        if (index == 0) return;
        answer.result = -1;
        answer.error = EIO;
    };
    LogCapture log;
    log.take();
    EXPECT_EQ(list(2), TRELM_STATUS_DRIVER_ERROR);
    EXPECT_EQ(contents(*array_), expect_elements({{0, 1}}).all()) << "what was filled stays filled";
    EXPECT_THAT(log.take_of("TRELM_GetTgtInfo"),
                ElementsAre("TRELM_GetTgtInfo(1): entered.",
                            "TRELM_GetTgtInfo(1): tgt info ioctl failed, stat=0 errno=5"));
}

// Both requests of a target, byte by byte.
TEST_P(Targets, EachIsAskedForByIndexAndThenForItsLuns) {
    load({{3, 1}});
    ASSERT_EQ(list(1), TRELM_STATUS_OK);
    const std::vector<hostsim::Call> asked = calls_of(host(), Operation::tgt_info);
    ASSERT_EQ(asked.size(), 4U);
    for (uint32_t index = 0; index < 4; ++index) {
        EXPECT_EQ(payload_of(asked[index]), Bytes(64).put(4, index).all());
    }
    const std::vector<uint8_t> sent = payload_of(calls_of(host(), Operation::scsi).at(0));
    Bytes expected(292);
    expected.put(4, uint32_t{3})
        .put(12, uint8_t{1})
        .put(13, uint8_t{12})
        .copy(14, "\xA0\0\0\0\0\0\0\0\x40\0\0\0", 12)
        .put(30, uint16_t{256})
        .put(288, uint32_t{16384});
    EXPECT_EQ(to_vector(std::span(sent).first(292)), expected.all());
}

// The count is the header's, whatever else came.
TEST_P(Targets, LunCountIsAnEighthOfTheListLength) {
    load({{0, 1}});
    for (const uint32_t length : {0U, 7U, 8U, 24U, 25U, 16376U, 16384U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
        host().tamper = [length](hostsim::Answer& answer) {
            if (answer.call.operation != Operation::scsi) return;
            const uint32_t header = __builtin_bswap32(length);
            memcpy(answer.data.data(), &header, sizeof header);
        };
        ASSERT_EQ(list(1), TRELM_STATUS_OK);
        EXPECT_EQ(contents(*array_), expect_elements({{0, length >> 3}}).all());
    }
}

}  // namespace
