// TRELM_SendScsiCommand: what the driver is given, what comes back, and that neither side ever sees a byte
// that is not its own, over every driver.
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

uint32_t requested_length(const Answer& answer) {
    uint32_t length = 0;
    memcpy(&length, payload_of(answer.call).data() + offsetof(dorfc_scsi_cmd, data_len), sizeof length);
    return length;
}
TRELM_SCSI_CMND command(uint8_t direction, uint16_t sense_length = 0) {
    TRELM_SCSI_CMND command{};
    command.Direction = direction;
    command.CDBLength = 6;
    command.SenseLength = sense_length;
    return command;
}
uint32_t send(TRELM_SCSI_CMND sent, uint32_t length, uint8_t* data) {
    const uint32_t code = TRELM_SendScsiCommand(1, 0, &sent, &length, data);
    return code;
}

class Scsi : public OnEachDriver {
  protected:
    Scsi() { open_port(); }
    bool native() const { return GetParam() != DriverKind::legacy; }
};
TRELM_ON_EACH_DRIVER(Scsi);
// The legacy driver writes the caller's buffer itself; the records of the native ones carry the data.
using NativeScsi = Scsi;
INSTANTIATE_TEST_SUITE_P(, NativeScsi, testing::Values(DriverKind::kron, DriverKind::pyx), driver_name);

TEST_P(Scsi, DataOfEveryLengthSurvivesAWriteAndARead) {
    std::vector<uint8_t> kept;
    answer_scsi(host, [&kept](Answer& answer, dorfc_scsi_cmd& command) {
        command.data_len = requested_length(answer);
        if (command.direction == SCSI_DIRECTION_OUT) {
            kept.assign(answer.data.begin(), answer.data.begin() + command.data_len);
        } else {
            std::copy(kept.begin(), kept.end(), answer.data.begin());
        }
    });
    std::mt19937 random(1);
    for (const uint32_t length : {0U, 1U, 2U, 3U, 511U, 512U, 513U, 4095U, 4096U, 4097U, 65535U, 65536U,
                                  65537U, 131072U, 262143U, 262144U}) {
        SCOPED_TRACE(length);
        GuardedBytes out(length), in(length);
        for (uint8_t& byte : out.span()) byte = static_cast<uint8_t>(random());
        const std::vector<uint8_t> written = contents(out);
        ASSERT_EQ(send(command(2), length, out.data()), TRELM_STATUS_OK);
        EXPECT_TRUE(kept == written) << "the driver got other bytes than were written";
        EXPECT_TRUE(contents(out) == written) << "a write changed the caller's data";
        ASSERT_EQ(send(command(1), length, in.data()), TRELM_STATUS_OK);
        EXPECT_TRUE(contents(in) == written) << "other bytes were read than were written";
        EXPECT_TRUE(in.guards_intact() && out.guards_intact());
    }
}

// The record as the driver gets it, byte by byte.
TEST_P(Scsi, TheDriverGetsTheWholeCommand) {
    for (const uint8_t direction : {0, 1, 2, 3, 255}) {
        SCOPED_TRACE(int{direction});
        Guarded<TRELM_SCSI_CMND> sent;
        const Bytes caller =
            Bytes::initial(292).put(Field{4, 4, 0x11121314}, Field{8, 4, 3}, Field{12, 4, 0x21222324},
                                    Field{16, 1, direction}, Field{17, 1, 16}, Field{34, 2, 250});
        memcpy(sent.data(), caller.data(), caller.size());
        uint8_t data[40];
        memset(data, 0x5C, sizeof data);
        uint32_t length = sizeof data;
        const bool has_data = direction == 1 || direction == 2;
        Bytes expected(native() ? 1016 : 320);
        expected.copy(14, sent->CDB, 16)
            .put(Field{0, 4, 0x11121314}, Field{4, 4, 3}, Field{8, 4, 0x21222324},
                 Field{12, 1, has_data ? direction : 0U}, Field{13, 1, 16}, Field{30, 2, 250},
                 Field{288, 4, has_data ? 40U : 0U});
        if (!native() && has_data) expected.put(Field{292, 8, reinterpret_cast<uint64_t>(data)});
        if (native() && direction == 2) expected.copy(292, data, sizeof data);
        host.clear_calls();
        answer_scsi(host, [](Answer&, dorfc_scsi_cmd& answer) { answer.sense_len = 0; });
        ASSERT_EQ(
            TRELM_SendScsiCommand(1, 1, sent.get(), has_data ? &length : nullptr, has_data ? data : nullptr),
            TRELM_STATUS_OK);
        ASSERT_EQ(host.calls().size(), 1U);
        EXPECT_EQ(payload_of(host.calls()[0]), expected.all());
        EXPECT_TRUE(contents(sent) == caller.all()) << "no sense came, so nothing is to be written";
        EXPECT_TRUE(sent.guards_intact());
        EXPECT_EQ(length, 40U);
    }
}

TEST_P(Scsi, SenseIsTheLesserOfWhatCameAndWhatWasWanted) {
    const uint16_t rows[][3]{{0, 32, 0},          {18, 32, 18},    {256, 18, 18},
                             {256, 256, 256},     {256, 0, 0},     {300, 256, 256},
                             {65535, 65535, 256}, {256, 257, 256}, {20, 65535, 20}};
    for (const auto& [wanted, came, copied] : rows) {
        SCOPED_TRACE(fmt::format("{} wanted, {} came", wanted, came));
        answer_scsi(host, [sense_len = came](Answer&, dorfc_scsi_cmd& answer) {
            answer.sense_len = sense_len;
            memset(answer.sense, 0x5E, sizeof answer.sense);
        });
        Guarded<TRELM_SCSI_CMND> sent;
        *sent = command(0, wanted);
        Bytes expected(292);
        memcpy(expected.data(), sent.data(), 292);
        memset(expected.data() + 36, 0x5E, copied);
        EXPECT_EQ(TRELM_SendScsiCommand(1, 0, sent.get(), nullptr, nullptr), TRELM_STATUS_OK);
        EXPECT_EQ(contents(sent), expected.all());
        EXPECT_TRUE(sent.guards_intact());
        uint16_t asked = 0;
        memcpy(&asked, payload_of(host.calls().back()).data() + 30, sizeof asked);
        EXPECT_EQ(asked, std::min<uint16_t>(wanted, 256));
    }
}

TEST_P(NativeScsi, AShortReadDeliversWhatCameAndALyingLengthNoMoreThanThereIsRoomFor) {
    for (const uint32_t claimed : {0U, 10U, 99U, 100U, 101U, 262144U, 262145U, 0xFFFFFFFFU}) {
        answer_scsi(host, [claimed](Answer& answer, dorfc_scsi_cmd& command) {
            std::fill(answer.data.begin(), answer.data.end(), uint8_t{0x3C});
            command.data_len = claimed;
        });
        GuardedBytes in(100), out(100);
        EXPECT_EQ(send(command(1), 100, in.data()), TRELM_STATUS_OK);
        const size_t arrived = std::min(claimed, 100U);
        EXPECT_TRUE(in.only_written({{0, arrived}})) << claimed << " claimed";
        EXPECT_THAT(in.span().first(arrived), Each(0x3C));
        EXPECT_EQ(send(command(2), 100, out.data()), TRELM_STATUS_OK);
        EXPECT_TRUE(out.untouched()) << "a command that moves nothing to the caller has no such length";
    }
}

// Buffers are used again from one command to the next: what an earlier one left must be gone for the driver
// and the caller.
TEST_P(NativeScsi, NothingOfACommandIsSeenByTheNext) {
    std::vector<size_t> dirty;
    bool fail_next = false;
    answer_scsi(host, [&](Answer& answer, dorfc_scsi_cmd& command) {
        const size_t sent = command.direction == SCSI_DIRECTION_OUT ? requested_length(answer) : 0;
        for (size_t i = sent; i < answer.data.size(); ++i) {
            if (answer.data[i] != 0) dirty.push_back(i);
        }
        // All that the command did not say is zero: the CDB behind its length, and the sense area.
        const std::vector<uint8_t> came = payload_of(answer.call);
        for (size_t i = 14 + size_t{command.cdb_len}; i < 288; ++i) {
            if (came[i] != 0 && i != 30 && i != 31) dirty.push_back(i);
        }
        std::fill(answer.payload.begin(), answer.payload.end(), uint8_t{0xDB});
        if (fail_next) answer.status = 9;
    });
    std::mt19937 random(3);
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        std::vector<uint8_t> data(262144, 0x77);
        fail_next = random() % 3 == 0;
        TRELM_SCSI_CMND next = command(static_cast<uint8_t>(random() % 3), 64);
        auto length = static_cast<uint32_t>(random() % 262145);
        memset(next.CDB, 0xCD, sizeof next.CDB);
        memset(next.Sense, 0x11, sizeof next.Sense);
        EXPECT_EQ(TRELM_SendScsiCommand(1, 0, &next, &length, data.data()), fail_next ? 0x60000009U : 0U);
        ASSERT_THAT(dirty, testing::IsEmpty());
        const std::span<const uint8_t> sense(next.Sense);
        EXPECT_THAT(to_vector(sense.first(64)), Each(fail_next ? 0 : 0xDB));
        EXPECT_THAT(to_vector(sense.subspan(64)), Each(0x11));
    }
}

TEST_P(Scsi, AFailedReadDeliversNoDataButSense) {
    answer_scsi(host, [](Answer& answer, dorfc_scsi_cmd& command) {
        memset(command.sense, 0x42, sizeof command.sense);
        command.sense_len = 20;
        std::fill(answer.data.begin(), answer.data.end(), uint8_t{0x42});
        answer.status = 9;
    });
    GuardedBytes in(64);
    uint32_t length = 64;
    TRELM_SCSI_CMND read = command(1, 18);
    memset(read.Sense, 0x99, sizeof read.Sense);
    EXPECT_EQ(TRELM_SendScsiCommand(1, 0, &read, &length, in.data()), 0x60000009U);
    // A native driver's answer to a failed command is not taken: its sense is as zero as it was sent.
    const std::span<const uint8_t> sense(read.Sense);
    EXPECT_THAT(to_vector(sense.first(18)), Each(native() ? 0 : 0x42));
    EXPECT_THAT(to_vector(sense.subspan(18)), Each(0x99));
    EXPECT_EQ(length, 64U);
    EXPECT_TRUE(in.only_written({{0, native() ? 0U : 64U}}));
    expect_failures_translated(host, Operation::scsi,
                               [&] { return TRELM_SendScsiCommand(1, 0, &read, &length, in.data()); });
}

TEST_P(Scsi, ArgumentsThatNoCommandCanHaveAreRefusedAndLogged) {
    LogCapture log;
    host.clear_calls();
    std::vector<uint8_t> data(262145);
    uint32_t one = 1, none = 0, too_long = 262145;
    const auto refused = [&](TRELM_SCSI_CMND sent, uint32_t* length, uint8_t* to, uint32_t handle) {
        return TRELM_SendScsiCommand(handle, 0, &sent, length, to) == TRELM_STATUS_INVALID_PARAMETER;
    };
    TRELM_SCSI_CMND long_cdb = command(0);
    long_cdb.CDBLength = 17;
    // Before the port is looked up.
    EXPECT_TRUE(refused(long_cdb, nullptr, nullptr, 9));
    for (const uint8_t direction : {1, 2}) {
        EXPECT_TRUE(refused(command(direction), nullptr, data.data(), 9));
        EXPECT_TRUE(refused(command(direction), &one, nullptr, 9));
        EXPECT_FALSE(refused(command(direction), &none, nullptr, 1)) << "nothing is to be moved";
        EXPECT_EQ(refused(command(direction), &too_long, data.data(), 1), native());
        EXPECT_FALSE(refused(command(direction), &too_long, data.data(), 9)) << "the port's own matter";
    }
    for (const uint8_t direction : {0, 3, 255})
        EXPECT_FALSE(refused(command(direction), nullptr, nullptr, 1));
    EXPECT_EQ(host.calls().size(), native() ? 5U : 7U);
    log.take();
    EXPECT_EQ(TRELM_SendScsiCommand(9, 0, nullptr, &one, data.data()), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(refused(command(0), nullptr, nullptr, 9));
    refused(command(1), nullptr, data.data(), 1);
    if (native()) refused(command(1), &too_long, data.data(), 1);
    const Lines end = lines("TRELM_SendScsiCommand(1): ", {"entered.", "invalid parameter."});
    EXPECT_EQ(log.take(), lines("TRELM_SendScsiCommand(9): ",
                                {"entered.", "invalid parameter.", "entered.", "get pdb failed."}) +
                              end + (native() ? end : Lines{}));
}

TEST_P(Scsi, TheEndOfACommandIsLogged) {
    LogCapture log;
    const std::string name = transport(GetParam()) + "send_scsi_cmd", own = "TRELM_SendScsiCommand(1): ";
    const Lines begin{own + "entered.", name + "(1): entered."}, exit{name + "(1): exiting."};
    TRELM_SCSI_CMND sent = command(0);
    answer_scsi(host, [](Answer&, dorfc_scsi_cmd&) {});
    log.take();
    TRELM_SendScsiCommand(1, 0, &sent, nullptr, nullptr);
    EXPECT_EQ(log.take(), begin + exit + Lines{own + "exiting, rval=0"});
    const char* const texts[]{"scsi cmd native", "scsi cmd PYX native", "scsi cmd ioctl"};
    const std::string status = native() ? "status" : "ioctl_status";
    for (const auto& [failure, driver_end, public_end, code] :
         {std::tuple{Failure{.status = 13}, " failed, " + status + "=13", "stat=13 errno=12", "6000000Dh"},
          {Failure{.error = EIO}, " function failed, errno=5", "stat=0 errno=5", "6000000Bh"}}) {
        failure.of(host, Operation::scsi);
        errno = 12;
        TRELM_SendScsiCommand(1, 0, &sent, nullptr, nullptr);
        EXPECT_EQ(log.take(),
                  begin + Lines{name + ": send scsi cmd " + (native() ? "native" : "ioctl") + driver_end} +
                      (native() ? exit : Lines{}) +
                      lines(own, {fmt::format("{} failed, {}", texts[size_t(GetParam())], public_end),
                                  fmt::format("exiting, rval={}", code)}));
    }
}

}  // namespace
