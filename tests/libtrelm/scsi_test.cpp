// TRELM_SendScsiCommand: what the driver receives, what the caller receives, and that neither sees other
// bytes. The legacy driver writes to the buffer of the caller. The records of the native drivers contain the
// data.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

class Scsi : public OnEachDriver {
  protected:
    bool native() const { return GetParam() != DriverKind::legacy; }
};
TRELM_ON_EACH_DRIVER(Scsi);

// Buffers are reused between commands, so each answer fills all of its record with garbage.
TEST_P(Scsi, MovesEveryByteAndHidesItFromTheNextCommand) {
    constexpr size_t kData = offsetof(kronfc_scsi_cmd, data_buffer);
    constexpr size_t kRecorded = 1024 - sizeof(native_cb_header);  // of a native payload
    open_port();
    std::vector<uint8_t> kept, buffer;
    answer_scsi(host, [&](DriverAnswer& answer, dorfc_scsi_cmd& record) {
        const uint8_t direction = record.direction;
        buffer.assign(answer.data.begin(), answer.data.end());
        if (native()) memset(answer.payload.data(), 0xDB, answer.payload.size());
        if (direction == 1) std::copy(kept.begin(), kept.end(), answer.data.begin());
        record.sense_len = 0, record.data_len = direction == 1 ? static_cast<uint32_t>(kept.size()) : ~0U;
    });
    std::mt19937 random(1);
    for (uint32_t length :
         {262144U, 0U, 1U, 2U, 3U, 511U, 512U, 513U, 4095U, 4096U, 4097U, 65535U, 65536U, 131072U, 262143U}) {
        Bytes written(length);
        std::generate(written.begin(), written.end(), std::ref(random));
        for (const uint8_t direction : {2, 1, 0, 3, 255}) {
            SCOPED_TRACE(fmt::format("direction {}, {} bytes", direction, length));
            const bool reads = direction == 1, writes = direction == 2;
            Guarded<TRELM_SCSI_CMND> sent;
            Bytes caller = Bytes::initial(sizeof(TRELM_SCSI_CMND));
            auto& command = caller.as<TRELM_SCSI_CMND>();
            command.ScsiLunNumExt = 0x11121314, command.ScsiTgtNum = 3, command.ScsiLunNum = 0x21222324;
            command.Direction = direction, command.CDBLength = 10, command.SenseLength = 250;
            memcpy(sent.data(), caller.data(), caller.size());
            GuardedBytes data(length);
            if (writes) std::copy(written.begin(), written.end(), data.data());
            const bool moved = reads || writes;
            Bytes expected(native() ? kRecorded : sizeof(dorfc_scsi_cmd));
            auto& record = expected.as<dorfc_scsi_cmd>();
            record.lun_ext = 0x11121314, record.tgt = 3, record.lun = 0x21222324;
            record.direction = moved ? direction : 0, record.cdb_len = 10, record.sense_len = 250;
            record.data_len = moved ? length : 0;
            memcpy(record.cdb, command.CDB, native() ? 10 : sizeof record.cdb);
            if (!native() && moved) record.data_addr = reinterpret_cast<uint64_t>(data.data());
            if (native() && writes)
                expected.copy(kData, written.data(), std::min<size_t>(length, kRecorded - kData));
            host.clear_calls();
            kept = written;
            ASSERT_EQ(TRELM_SendScsiCommand(1, 1, sent.get(), &length, data.data()), TRELM_STATUS_OK);
            ASSERT_EQ(payload_of(host.calls().at(0)), expected.all());
            if (writes || native()) {
                Bytes carried(native() ? 262144 : length);
                if (writes) carried.copy(0, written.data(), length);
                ASSERT_TRUE(buffer == carried.all()) << "the driver saw other bytes than were written";
            }
            EXPECT_TRUE(contents(data) == (moved ? written : Bytes::initial(length)).all());
            EXPECT_TRUE(contents(sent) == caller.all()) << "no sense came, so nothing is to be written";
            EXPECT_TRUE(sent.guards_intact() && data.guards_intact());
        }
    }
}

TEST_P(Scsi, ReturnsOnlyWhatArrivedAndFits) {
    open_port();
    const uint32_t rows[][5]{{0, 32, 0, 0, 0},
                             {18, 32, 18, 10, 10},
                             {256, 18, 18, 99, 99},
                             {256, 256, 256, 100, 100},
                             {256, 0, 0, 101, 100},
                             {300, 256, 256, 262144, 100},
                             {65535, 65535, 256, 262145, 100},
                             {256, 257, 256, 0xFFFFFFFF, 100}};
    for (const auto& [wanted, came, sense, claimed, arrived] : rows) {
        for (const uint32_t status : {0U, 9U}) {
            SCOPED_TRACE(fmt::format("{} of sense came, {} of data, status {}", came, claimed, status));
            answer_scsi(
                host, [status, came = came, claimed = claimed](DriverAnswer& answer, dorfc_scsi_cmd& record) {
                    memset(record.sense, 0x5E, sizeof record.sense);
                    std::fill(answer.data.begin(), answer.data.end(), uint8_t{0x3C});
                    record.sense_len = static_cast<uint16_t>(came), record.data_len = claimed;
                    answer.status = status;
                });
            Guarded<TRELM_SCSI_CMND> sent;
            Bytes command = Bytes::initial(sizeof(TRELM_SCSI_CMND));
            auto& fields = command.as<TRELM_SCSI_CMND>();
            fields.Direction = 1, fields.CDBLength = 6, fields.SenseLength = static_cast<uint16_t>(wanted);
            memcpy(sent.data(), command.data(), command.size());
            GuardedBytes data(100);
            uint32_t length = 100;
            EXPECT_EQ(TRELM_SendScsiCommand(1, 0, sent.get(), &length, data.data()),
                      status == 0 ? TRELM_STATUS_OK : 0x60000009U);
            EXPECT_EQ(length, 100U);
            // The answer of a native driver to a failed command is ignored: the sense data stays zero.
            const bool taken = status == 0 || !native();
            Bytes expected = command;
            expected.fill(offsetof(TRELM_SCSI_CMND, Sense), taken ? 0x5E : 0,
                          taken ? sense : std::min(wanted, 256U));
            EXPECT_EQ(contents(sent), expected.all());
            expected = Bytes::initial(100).fill(0, 0x3C, !native() ? 100 : taken ? arrived : 0);
            EXPECT_EQ(contents(data), expected.all());
            EXPECT_TRUE(sent.guards_intact() && data.guards_intact());
        }
    }
}

}  // namespace
