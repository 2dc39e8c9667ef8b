// scsi_exchange_test.cpp - SCSI commands in driver records: both kinds of record are carried out alike.
#include "scsi_exchange.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace hostsim {
namespace {

using ::testing::Each;
using ::testing::ElementsAreArray;

using Bytes = std::vector<uint8_t>;
using Cdb = std::array<uint8_t, 16>;

constexpr Cdb kReadTwo{0x28, 0, 0, 0, 0, 0, 0, 0, 2};

// LUN 1, by flat addressing.
ScsiTarget target_of(bool reserved) {
    DiskConfig config;
    config.reserved = reserved;
    config.block_count = 8;
    return ScsiTarget({{1, LunAddressing::flat, Disk(config, memory_store(512))}});
}

// Either kind of record with its data area, which is as long as the native one's.
template <typename Record>
struct Exchange {
    Exchange() : area(kScsiMaxData), record(std::make_unique<Record>()) {
        if constexpr (std::is_same_v<Record, dorfc_scsi_cmd>)
            record->data_addr = reinterpret_cast<uintptr_t>(area.data());
        record->lun = 0x4001;
        record->sense_len = 256;
    }
    uint32_t run(uint8_t direction, uint8_t cdb_length, const Cdb& cdb, uint32_t length) {
        record->direction = direction;
        record->cdb_len = cdb_length;
        std::ranges::copy(cdb, record->cdb);
        record->data_len = length;
        return exchange_scsi(target, *record);
    }
    uint8_t* data() { return scsi_data(*record); }

    ScsiTarget target = target_of(false);
    Bytes area;
    std::unique_ptr<Record> record;
};

template <typename Record>
class ScsiExchange : public ::testing::Test {};
using Records = ::testing::Types<kronfc_scsi_cmd, dorfc_scsi_cmd>;
TYPED_TEST_SUITE(ScsiExchange, Records);

TYPED_TEST(ScsiExchange, CutsSenseDataToTheRoomThatTheRecordGives) {
    const SenseData refusal = fixed_sense(sense::kInvalidOpcode);
    for (const uint16_t room : {0, 8, 18, 252, 65535}) {
        Exchange<TypeParam> exchange;
        exchange.record->sense_len = room;
        EXPECT_EQ(exchange.run(1, 6, {0xC1}, 512), 0u);
        const uint16_t expected = std::min<uint16_t>(room, 18);
        EXPECT_EQ(exchange.record->sense_len, expected);
        EXPECT_EQ(exchange.record->data_len, 0u);
        EXPECT_THAT(std::span(exchange.record->sense).first(expected),
                    ElementsAreArray(std::span(refusal).first(expected)));
        EXPECT_THAT(std::span(exchange.record->sense).subspan(expected), Each(0));
    }
}

TYPED_TEST(ScsiExchange, SendsOnlyTheBytesOfTheCdbAndDataOnlyInItsDirection) {
    Exchange<TypeParam> exchange;
    EXPECT_EQ(exchange.run(1, 1, {0x12, 1, 0x99}, 512), 0u);  // the rest would be an error
    EXPECT_EQ(exchange.record->sense_len, 0);
    EXPECT_EQ(exchange.run(0, 6, {0x12, 0, 0, 0, 36}, 512), 0u);
    EXPECT_EQ(exchange.record->data_len, 0u);
    EXPECT_EQ(exchange.run(255, 6, {0x12, 0, 0, 0, 36}, 512), 0u);
    EXPECT_EQ(exchange.record->data_len, 0u);
}

TYPED_TEST(ScsiExchange, RefusesARecordThatCannotBeCarriedOut) {
    Exchange<TypeParam> exchange;
    EXPECT_EQ(exchange.run(1, 17, {0x12, 0, 0, 0, 36}, 512), kScsiExchangeInvalid);
    if constexpr (std::is_same_v<TypeParam, dorfc_scsi_cmd>) {
        exchange.record->data_addr = 0;
        EXPECT_EQ(exchange.run(1, 6, {0x12, 0, 0, 0, 36}, 1), kScsiExchangeInvalid);
        EXPECT_EQ(exchange.run(1, 6, {0x12, 0, 0, 0, 36}, 0), 0u);
    } else {
        EXPECT_EQ(exchange.run(2, 6, {0x12, 0, 0, 0, 36}, kScsiMaxData + 1), kScsiExchangeInvalid);
    }
}

TYPED_TEST(ScsiExchange, ReportsAReservationConflictAsTheDriversOwnStatus) {
    Exchange<TypeParam> exchange;
    exchange.target = target_of(true);
    EXPECT_EQ(exchange.run(1, 10, kReadTwo, 512), kScsiExchangeReserved);
    EXPECT_EQ(exchange.record->sense_len, 0);
    EXPECT_EQ(exchange.record->data_len, 0u);
}

}  // namespace
}  // namespace hostsim
