// TRELM_SendScsiCommand: what the driver is given, what comes back, and that neither side ever sees a byte
// that is not its own, over every driver.
#include <gmock/gmock.h>

#include <random>

#include "support/loaded_host.h"
#include "support/log_capture.h"
#include "support/port_calls.h"
#include "trelm_driver_records.h"

namespace {

using namespace trelm::test;
using hostsim::Answer;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::ElementsAre;

class Scsi : public OnEachDriver {
  protected:
    Scsi() { open_port(); }

    bool native() const { return GetParam() != DriverKind::legacy; }
    // Lets `work` have the answer to every SCSI command, which then has a good status unless it says
    // otherwise.
    template <typename Work>
    void driver_answers(const Work& work) {
        host.tamper = [work](Answer& answer) {
            if (answer.call.operation != Operation::scsi) return;
            answer.status = 0;
            answer.result = 0;
            work(answer, answer.as<dorfc_scsi_cmd>());
        };
    }
    // A driver that keeps what is written and gives it back when it is read.
    void driver_echoes() {
        driver_answers([this](Answer& answer, dorfc_scsi_cmd& command) {
            const uint32_t asked = requested_length(answer);
            if (command.direction == SCSI_DIRECTION_OUT)
                echo_.assign(answer.data.begin(), answer.data.begin() + asked);
            if (command.direction == SCSI_DIRECTION_IN)
                std::copy(echo_.begin(), echo_.end(), answer.data.begin());
            command.data_len = asked;
        });
    }
    static uint32_t requested_length(const Answer& answer) {
        uint32_t length = 0;
        memcpy(&length, payload_of(answer.call).data() + offsetof(dorfc_scsi_cmd, data_len), sizeof length);
        return length;
    }
    static TRELM_SCSI_CMND command(uint8_t direction, uint16_t sense_length = 0) {
        TRELM_SCSI_CMND command{};
        command.Direction = direction;
        command.CDBLength = 6;
        command.SenseLength = sense_length;
        return command;
    }

    std::vector<uint8_t> echo_;
    bool fail_next_ = false;
};
TRELM_ON_EACH_DRIVER(Scsi);

TEST_P(Scsi, DataOfEveryLengthSurvivesAWriteAndARead) {
    driver_echoes();
    std::mt19937 random(1);
    for (const uint32_t length : {0U, 1U, 2U, 3U, 511U, 512U, 513U, 4095U, 4096U, 4097U, 65535U, 65536U,
                                  65537U, 131072U, 262143U, 262144U}) {
        SCOPED_TRACE(length);
        GuardedBytes out(length);
        for (uint8_t& byte : out.span()) byte = static_cast<uint8_t>(random());
        const std::vector<uint8_t> written = contents(out);
        GuardedBytes in(length);
        uint32_t data_len = length;
        TRELM_SCSI_CMND write = command(2);
        ASSERT_EQ(TRELM_SendScsiCommand(1, 0, &write, &data_len, out.data()), TRELM_STATUS_OK);
        EXPECT_TRUE(echo_ == written) << "the driver got other bytes than were written";
        EXPECT_TRUE(contents(out) == written) << "a write changed the caller's data";
        TRELM_SCSI_CMND read = command(1);
        ASSERT_EQ(TRELM_SendScsiCommand(1, 0, &read, &data_len, in.data()), TRELM_STATUS_OK);
        EXPECT_TRUE(contents(in) == written) << "other bytes were read than were written";
        EXPECT_TRUE(in.guards_intact() && out.guards_intact());
        EXPECT_EQ(data_len, length);
    }
}

TEST_P(Scsi, ASimulatedDiskKeepsWhatIsWrittenToIt) {
    std::mt19937 random(2);
    for (const uint8_t blocks : {1, 2, 100, 255}) {
        std::vector<uint8_t> out(size_t{blocks} * 512);
        for (uint8_t& byte : out) byte = static_cast<uint8_t>(random());
        std::vector<uint8_t> in(out.size());
        auto length = static_cast<uint32_t>(out.size());
        for (const auto& [opcode, direction, data] : {std::tuple{0x2A, 2, &out}, {0x28, 1, &in}}) {
            TRELM_SCSI_CMND io = command(static_cast<uint8_t>(direction), 32);
            const uint8_t cdb[16] = {static_cast<uint8_t>(opcode), 0, 0, 0, 0, blocks, 0, 0, blocks};
            memcpy(io.CDB, cdb, sizeof cdb);
            io.CDBLength = 10;
            io.ScsiTgtNum = 3;
            io.ScsiLunNum = 1;
            ASSERT_EQ(TRELM_SendScsiCommand(1, 2, &io, &length, data->data()), TRELM_STATUS_OK);
        }
        EXPECT_TRUE(in == out) << int{blocks} << " blocks";
    }
}

// The record as the driver gets it, byte by byte.
TEST_P(Scsi, TheDriverGetsTheWholeCommand) {
    for (const uint8_t direction : {0, 1, 2, 3, 255}) {
        SCOPED_TRACE(int{direction});
        Guarded<TRELM_SCSI_CMND> sent;
        Bytes caller = Bytes::initial(292)
                           .put(4, uint32_t{0x11121314})
                           .put(8, uint32_t{3})
                           .put(12, uint32_t{0x21222324})
                           .put(16, direction)
                           .put(17, uint8_t{16})
                           .put(34, uint16_t{250});
        memcpy(sent.data(), caller.data(), caller.size());
        uint8_t data[40];
        memset(data, 0x5C, sizeof data);
        uint32_t length = sizeof data;
        const bool has_data = direction == 1 || direction == 2;
        Bytes expected(native() ? 1016 : 320);
        expected.put(0, uint32_t{0x11121314})
            .put(4, uint32_t{3})
            .put(8, uint32_t{0x21222324})
            .put(12, uint8_t{has_data ? direction : uint8_t{0}})
            .put(13, uint8_t{16})
            .copy(14, sent->CDB, 16)
            .put(30, uint16_t{250});
        if (has_data) expected.put(288, uint32_t{40});
        if (!native() && has_data) expected.put(292, reinterpret_cast<uint64_t>(data));
        if (native() && direction == 2) expected.copy(292, data, sizeof data);

        host.clear_calls();
        driver_answers([](Answer&, dorfc_scsi_cmd& answer) { answer.sense_len = 0; });
        ASSERT_EQ(
            TRELM_SendScsiCommand(1, 1, sent.get(), has_data ? &length : nullptr, has_data ? data : nullptr),
            TRELM_STATUS_OK);
        ASSERT_EQ(host.calls().size(), 1U);
        EXPECT_EQ(payload_of(host.calls()[0]), expected.all());
        EXPECT_TRUE(contents(sent) == caller.all()) << "no sense came, so nothing is to be written";
        EXPECT_TRUE(sent.guards_intact());
    }
}

TEST_P(Scsi, SenseIsTheLesserOfWhatCameAndWhatWasWanted) {
    struct Row {
        uint16_t wanted, came;
        size_t copied;
    };
    for (const Row row : {Row{0, 32, 0},
                          {18, 32, 18},
                          {256, 18, 18},
                          {256, 256, 256},
                          {256, 0, 0},
                          {300, 256, 256},
                          {65535, 65535, 256},
                          {256, 257, 256},
                          {20, 65535, 20}}) {
        SCOPED_TRACE(fmt::format("{} wanted, {} came", row.wanted, row.came));
        driver_answers([row](Answer&, dorfc_scsi_cmd& answer) {
            answer.sense_len = row.came;
            for (size_t i = 0; i < 256; ++i) answer.sense[i] = static_cast<uint8_t>(255 - i);
        });
        Guarded<TRELM_SCSI_CMND> sent;
        sent->Direction = 0;
        sent->CDBLength = 6;
        sent->SenseLength = row.wanted;
        Bytes expected(292);
        memcpy(expected.data(), sent.data(), 292);
        for (size_t i = 0; i < row.copied; ++i) expected.put(36 + i, static_cast<uint8_t>(255 - i));
        EXPECT_EQ(TRELM_SendScsiCommand(1, 0, sent.get(), nullptr, nullptr), TRELM_STATUS_OK);
        EXPECT_EQ(contents(sent), expected.all());
        EXPECT_TRUE(sent.guards_intact());
        uint16_t asked = 0;
        memcpy(&asked, payload_of(host.calls().back()).data() + 30, sizeof asked);
        EXPECT_EQ(asked, std::min<uint16_t>(row.wanted, 256));
    }
}

TEST_P(Scsi, AShortReadDeliversWhatCameAndALyingLengthNoMoreThanThereIsRoomFor) {
    if (!native()) GTEST_SKIP() << "the legacy driver writes the caller's buffer itself";
    for (const uint32_t claimed : {0U, 10U, 99U, 100U, 101U, 262144U, 262145U, 0xFFFFFFFFU}) {
        driver_answers([claimed](Answer& answer, dorfc_scsi_cmd& command) {
            std::fill(answer.data.begin(), answer.data.end(), uint8_t{0x3C});
            command.data_len = claimed;
        });
        GuardedBytes in(100);
        uint32_t length = 100;
        TRELM_SCSI_CMND read = command(1);
        EXPECT_EQ(TRELM_SendScsiCommand(1, 0, &read, &length, in.data()), TRELM_STATUS_OK);
        const size_t arrived = std::min(claimed, 100U);
        EXPECT_TRUE(in.only_written({{0, arrived}})) << claimed << " claimed";
        EXPECT_THAT(in.span().first(arrived), testing::Each(0x3C));
        EXPECT_EQ(length, 100U);
    }
    // A length in the answer to a command that moves nothing to the caller means nothing.
    GuardedBytes out(100);
    uint32_t length = 100;
    TRELM_SCSI_CMND write = command(2);
    EXPECT_EQ(TRELM_SendScsiCommand(1, 0, &write, &length, out.data()), TRELM_STATUS_OK);
    EXPECT_TRUE(out.untouched());
}

// Buffers are used again from one command to the next: what an earlier one left must be gone for the driver
// and the caller.
TEST_P(Scsi, NothingOfACommandIsSeenByTheNext) {
    if (!native()) GTEST_SKIP() << "the legacy driver's records carry no data";
    std::vector<size_t> dirty;
    driver_answers([&](Answer& answer, dorfc_scsi_cmd& command) {
        const size_t sent = command.direction == SCSI_DIRECTION_OUT ? requested_length(answer) : 0;
        for (size_t i = sent; i < answer.data.size(); ++i) {
            if (answer.data[i] != 0) dirty.push_back(i);
        }
        // All that the command did not say is zero: the CDB behind its length, and the sense area.
        const std::vector<uint8_t> came = payload_of(answer.call);
        for (size_t i = 14 + size_t{command.cdb_len}; i < 288; ++i) {
            const bool said = i == 30 || i == 31;
            if (came[i] != 0 && !said) dirty.push_back(i);
        }
        std::fill(answer.payload.begin(), answer.payload.end(), uint8_t{0xDB});
        if (fail_next_) answer.status = 9;
    });
    std::vector<uint8_t> data(262144, 0x77);
    std::mt19937 random(3);
    for (int round = 0; round < 24; ++round) {
        SCOPED_TRACE(round);
        fail_next_ = random() % 3 == 0;
        const auto direction = static_cast<uint8_t>(random() % 3);
        auto length = static_cast<uint32_t>(random() % 262145);
        TRELM_SCSI_CMND next = command(direction, 64);
        memset(next.CDB, 0xCD, sizeof next.CDB);
        memset(next.Sense, 0x11, sizeof next.Sense);
        EXPECT_EQ(TRELM_SendScsiCommand(1, 0, &next, &length, data.data()), fail_next_ ? 0x60000009U : 0U);
        ASSERT_THAT(dirty, testing::IsEmpty());
        const std::span<const uint8_t> sense(next.Sense);
        EXPECT_THAT(to_vector(sense.first(64)), testing::Each(fail_next_ ? 0 : 0xDB));
        EXPECT_THAT(to_vector(sense.subspan(64)), testing::Each(0x11));
        std::fill(data.begin(), data.end(), uint8_t{0x77});
    }
}

TEST_P(Scsi, AFailedReadDeliversNoDataButSense) {
    // A native driver's answer to a failed command is not taken: its sense is as zero as it was sent.
    const uint8_t expected_sense = native() ? 0 : 0x42;
    driver_answers([](Answer& answer, dorfc_scsi_cmd& command) {
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
    const std::span<const uint8_t> sense(read.Sense);
    EXPECT_THAT(to_vector(sense.first(18)), testing::Each(expected_sense));
    EXPECT_THAT(to_vector(sense.subspan(18)), testing::Each(0x99));
    EXPECT_EQ(length, 64U);
    if (native()) {
        EXPECT_TRUE(in.untouched());
    }
    expect_failures_translated(host, Operation::scsi,
                               [&] { return TRELM_SendScsiCommand(1, 0, &read, &length, in.data()); });
}

TEST_P(Scsi, ArgumentsThatNoCommandCanHaveAreRefused) {
    LogCapture log;
    log.take();
    host.clear_calls();
    uint8_t byte = 0;
    uint32_t one = 1, none = 0, too_long = 262145;
    const auto refused = [&](TRELM_SCSI_CMND sent, uint32_t* length, uint8_t* data, uint32_t handle) {
        return TRELM_SendScsiCommand(handle, 0, &sent, length, data) == TRELM_STATUS_INVALID_PARAMETER;
    };
    TRELM_SCSI_CMND long_cdb = command(0);
    long_cdb.CDBLength = 17;
    // Before the port is looked up.
    EXPECT_EQ(TRELM_SendScsiCommand(9, 0, nullptr, &one, &byte), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(refused(long_cdb, nullptr, nullptr, 9));
    for (const uint8_t direction : {1, 2}) {
        EXPECT_TRUE(refused(command(direction), nullptr, &byte, 9));
        EXPECT_TRUE(refused(command(direction), &one, nullptr, 9));
        EXPECT_FALSE(refused(command(direction), &none, nullptr, 1)) << "nothing is to be moved";
        EXPECT_EQ(refused(command(direction), &too_long, std::vector<uint8_t>(262145).data(), 1), native());
        EXPECT_FALSE(refused(command(direction), &too_long, &byte, 9)) << "the length is the port's matter";
    }
    for (const uint8_t direction : {0, 3, 255})
        EXPECT_FALSE(refused(command(direction), nullptr, nullptr, 1));
    EXPECT_EQ(host.calls().size(), native() ? 5U : 7U);

    for (const std::string& line : log.take())
        EXPECT_EQ(line.find("alloc failed"), std::string::npos) << line;
    TRELM_SCSI_CMND plain = command(0);
    TRELM_SendScsiCommand(9, 0, nullptr, nullptr, nullptr);
    TRELM_SendScsiCommand(9, 0, &plain, nullptr, nullptr);
    TRELM_SCSI_CMND read = command(1);
    if (native()) TRELM_SendScsiCommand(1, 0, &read, &too_long, &byte);
    Lines expected{"TRELM_SendScsiCommand(9): entered.", "TRELM_SendScsiCommand(9): invalid parameter.",
                   "TRELM_SendScsiCommand(9): entered.", "TRELM_SendScsiCommand(9): get pdb failed."};
    if (native()) {
        expected.insert(expected.end(), {"TRELM_SendScsiCommand(1): entered.",
                                         "TRELM_SendScsiCommand(1): invalid parameter."});
    }
    EXPECT_EQ(log.take(), expected);
}

TEST_P(Scsi, TheEndOfACommandIsLogged) {
    LogCapture log;
    log.take();
    TRELM_SCSI_CMND sent = command(0);
    driver_answers([](Answer&, dorfc_scsi_cmd&) {});
    TRELM_SendScsiCommand(1, 0, &sent, nullptr, nullptr);
    const std::string name = transport(GetParam()) + "send_scsi_cmd";
    EXPECT_THAT(log.take(), ElementsAre("TRELM_SendScsiCommand(1): entered.", name + "(1): entered.",
                                        name + "(1): exiting.", "TRELM_SendScsiCommand(1): exiting, rval=0"));
    const char* const texts[]{"scsi cmd native failed", "scsi cmd PYX native failed",
                              "scsi cmd ioctl failed"};
    const std::string public_text = texts[static_cast<size_t>(GetParam())];
    Failure{.status = 13}.of(host, Operation::scsi);
    errno = 12;
    TRELM_SendScsiCommand(1, 0, &sent, nullptr, nullptr);
    Failure{.error = EIO}.of(host, Operation::scsi);
    TRELM_SendScsiCommand(1, 0, &sent, nullptr, nullptr);
    const std::string word = native() ? "native" : "ioctl";
    const std::string status_word = native() ? "status" : "ioctl_status";
    Lines expected;
    for (const auto& [own, stat, error, code] :
         {std::tuple{" failed, " + status_word + "=13", 13, 12, "6000000Dh"},
          {" function failed, errno=5", 0, 5, "6000000Bh"}}) {
        expected.insert(expected.end(), {"TRELM_SendScsiCommand(1): entered.", name + "(1): entered.",
                                         name + ": send scsi cmd " + word + own});
        if (native()) expected.push_back(name + "(1): exiting.");
        expected.push_back(
            fmt::format("TRELM_SendScsiCommand(1): {}, stat={} errno={}", public_text, stat, error));
        expected.push_back(fmt::format("TRELM_SendScsiCommand(1): exiting, rval={}", code));
    }
    EXPECT_EQ(log.take(), expected);
}

}  // namespace
