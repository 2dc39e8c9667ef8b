// scsi_disk_test.cpp - the simulated disks: what each command answers, what stands in a command's way, and
// where the contents lie.
#include "scsi_disk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <numeric>

#include "scsi_exchange.h"
#include "scsi_target.h"

namespace hostsim {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

using Bytes = std::vector<uint8_t>;
using Cdb = std::array<uint8_t, 16>;

constexpr uint64_t kMiB = 1 << 20;

DiskConfig small_disk() {
    DiskConfig config;
    config.vendor = "CALVEXA";
    config.product = "ULVARD VOLUME, LONG NAME";
    config.revision = "05";
    config.serial = "CX0000017";
    config.naa = 0x5000C500A1B2C3D4;
    config.block_count = 2048;
    return config;
}

// A command of the READ or WRITE family with its fields where its length has them.
Cdb transfer_cdb(uint8_t opcode, uint64_t lba, uint32_t blocks) {
    constexpr struct {
        size_t lba_at, lba_width, blocks_at, blocks_width;
    } kLayouts[] = {{1, 3, 4, 1}, {2, 4, 7, 2}, {2, 4, 7, 2}, {}, {2, 8, 10, 4}, {2, 4, 6, 4}};
    const auto& layout = kLayouts[opcode >> 5];
    Cdb cdb{opcode};
    put_be(cdb, layout.lba_at, layout.lba_width, lba);
    put_be(cdb, layout.blocks_at, layout.blocks_width, blocks);
    return cdb;
}

bool all_are(uint8_t value, std::span<const uint8_t> bytes) {
    return !bytes.empty() && std::ranges::all_of(bytes, [&](uint8_t byte) { return byte == value; });
}

// A reply with the data that came; bytes of the buffer behind that must be as they were.
struct Result {
    ScsiReply reply;
    Bytes data;

    SenseCode code() const { return {reply.sense[2], reply.sense[12], reply.sense[13]}; }
    bool good() const { return reply.status == ScsiStatus::good; }
};

template <typename Run>
Result run_in(const Cdb& cdb, size_t room, const Run& run) {
    constexpr uint8_t kUntouched = 0xE7;
    Result result;
    Bytes buffer(room + 16, kUntouched);
    ScsiRequest request;
    request.cdb = cdb;
    request.data_in = std::span(buffer).first(room);
    result.reply = run(request);
    EXPECT_LE(result.reply.transferred, room);
    EXPECT_TRUE(all_are(kUntouched, std::span(buffer).subspan(result.reply.transferred)));
    result.data.assign(buffer.begin(),
                       buffer.begin() + static_cast<std::ptrdiff_t>(result.reply.transferred));
    return result;
}

Result run(const Disk& disk, const Cdb& cdb, size_t room = 65536) {
    return run_in(cdb, room, [&](const ScsiRequest& request) { return disk.run(request); });
}

Result send(const Disk& disk, const Cdb& cdb, const Bytes& data) {
    ScsiRequest request;
    request.cdb = cdb;
    request.data_out = data;
    return {disk.run(request), {}};
}

Disk disk_of(const DiskConfig& config) { return {config, memory_store(config.block_size)}; }

Bytes pattern(size_t size, uint8_t seed) {
    Bytes data(size);
    for (size_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(seed + i * 31 + i / 251);
    return data;
}

std::string text(const Bytes& data, size_t at, size_t width) {
    return {data.begin() + static_cast<std::ptrdiff_t>(at),
            data.begin() + static_cast<std::ptrdiff_t>(at + width)};
}

// ---- Identity

TEST(Inquiry, DescribesADiskInPaddedText) {
    const Bytes data = run(disk_of(small_disk()), {0x12, 0, 0, 0, 255}).data;
    ASSERT_EQ(data.size(), 96u);
    EXPECT_EQ(data[0], 0x00);
    EXPECT_EQ(data[2], 0x06);
    EXPECT_EQ(data[3] & 0x0F, 0x02);
    EXPECT_EQ(data[4], 91);
    EXPECT_EQ(text(data, 8, 28), "CALVEXA ULVARD VOLUME, L05  ");
}

TEST(Inquiry, SendsNoMoreThanAllocatedAndNoMoreThanThereIsRoomFor) {
    const Disk disk = disk_of(small_disk());
    const Bytes whole = run(disk, {0x12, 0, 0, 0, 255}).data;
    for (uint8_t length = 0; length < 100; ++length) {
        const Bytes expected(whole.begin(), whole.begin() + std::min<std::ptrdiff_t>(length, 96));
        EXPECT_EQ(run(disk, {0x12, 0, 0, 0, length}).data, expected);
        EXPECT_EQ(run(disk, {0x12, 0, 0, 1, 0}, length).data, expected);
    }
}

TEST(Inquiry, KeepsTheQualifierOfAnOddDevice) {
    DiskConfig config = small_disk();
    config.device_type = 0x2D;
    EXPECT_EQ(run(disk_of(config), {0x12, 0, 0, 0, 36}).data[0], 0x2D);
    EXPECT_EQ(run(disk_of(config), {0x12, 1, 0x80, 0, 36}).data[0], 0x2D);
}

TEST(Inquiry, HasFourVitalProductDataPages) {
    const Disk disk = disk_of(small_disk());
    EXPECT_THAT(run(disk, {0x12, 1, 0x00, 0, 255}).data, ElementsAre(0, 0x00, 0, 4, 0x00, 0x80, 0x83, 0xB0));

    const Bytes serial = run(disk, {0x12, 1, 0x80, 0, 255}).data;
    ASSERT_EQ(serial.size(), 13u);
    EXPECT_EQ(text(serial, 4, 9), "CX0000017");

    const Bytes names = run(disk, {0x12, 1, 0x83, 0, 255}).data;
    ASSERT_EQ(names.size(), 4u + 12 + 4 + 33);
    EXPECT_EQ(get_be(names, 2, 2), names.size() - 4);
    EXPECT_THAT(Bytes(names.begin() + 4, names.begin() + 16),
                ElementsAre(1, 3, 0, 8, 0x50, 0x00, 0xC5, 0x00, 0xA1, 0xB2, 0xC3, 0xD4));
    EXPECT_THAT(Bytes(names.begin() + 16, names.begin() + 20), ElementsAre(2, 1, 0, 33));
    EXPECT_EQ(text(names, 20, 33), "CALVEXA ULVARD VOLUME, LCX0000017");

    const Bytes limits = run(disk, {0x12, 1, 0xB0, 0, 255}).data;
    ASSERT_EQ(limits.size(), 64u);
    EXPECT_EQ(get_be(limits, 6, 2), 8u);     // 4096 bytes
    EXPECT_EQ(get_be(limits, 12, 4), 512u);  // 262144 bytes
}

// ---- Capacity and mode pages

TEST(ReadCapacity, TellsTheLastBlockAndDefersToTheLongForm) {
    struct {
        uint64_t blocks;
        uint32_t size;
        uint32_t last_in_short_form;
    } const cases[] = {
        {1, 512, 0},
        {0x100000, 512, 0x0FFFFF},
        {0xFFFFFFFF, 512, 0xFFFFFFFE},
        {0x100000000, 512, 0xFFFFFFFF},
        {0x200000000, 4096, 0xFFFFFFFF},
        {UINT64_MAX, 4096, 0xFFFFFFFF},
    };
    for (const auto& c : cases) {
        DiskConfig config = small_disk();
        config.block_count = c.blocks;
        config.block_size = c.size;
        const Bytes brief = run(disk_of(config), {0x25}, 32).data;
        const Bytes whole = run(disk_of(config), {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32}).data;
        ASSERT_EQ(brief.size(), 8u);
        ASSERT_EQ(whole.size(), 32u);
        EXPECT_EQ(get_be(brief, 0, 4), c.last_in_short_form);
        EXPECT_EQ(get_be(brief, 4, 4), c.size);
        EXPECT_EQ(get_be(whole, 0, 8), c.blocks - 1);
        EXPECT_EQ(get_be(whole, 8, 4), c.size);
    }
    EXPECT_EQ(run(disk_of(small_disk()), {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12}).data.size(), 12u);
}

TEST(ModeSense, LaysOutHeaderDescriptorAndPages) {
    DiskConfig config = small_disk();
    config.block_count = 0x123456789A;
    config.block_size = 4096;
    const Disk disk = disk_of(config);
    const Bytes caching{0x08, 18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const Bytes control{0x0A, 10, 0, 0x10, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0};
    const Bytes control_mask{0x0A, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    const Bytes brief_blocks{0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0x10, 0x00};
    const Bytes whole_blocks{0, 0, 0, 0x12, 0x34, 0x56, 0x78, 0x9A, 0, 0, 0, 0, 0, 0, 0x10, 0};
    struct {
        Cdb cdb;
        std::vector<Bytes> parts;
    } const cases[] = {
        {{0x1A, 0, 0x08, 0, 255}, {{31, 0, 0x10, 8}, brief_blocks, caching}},
        {{0x1A, 8, 0x0A, 0, 255}, {{15, 0, 0x10, 0}, control}},
        {{0x1A, 8, 0x3F, 0, 255}, {{35, 0, 0x10, 0}, caching, control}},
        {{0x1A, 8, 0x3F, 0xFF, 255}, {{35, 0, 0x10, 0}, caching, control}},
        {{0x1A, 8, 0x4A, 0, 255}, {{15, 0, 0x10, 0}, control_mask}},
        {{0x1A, 8, 0x8A, 0, 255}, {{15, 0, 0x10, 0}, control}},
        {{0x5A, 0, 0x0A, 0, 0, 0, 0, 1, 0}, {{0, 26, 0, 0x10, 0, 0, 0, 8}, brief_blocks, control}},
        {{0x5A, 0x10, 0x0A, 0, 0, 0, 0, 1, 0}, {{0, 34, 0, 0x10, 1, 0, 0, 16}, whole_blocks, control}},
        {{0x5A, 0x18, 0x0A, 0, 0, 0, 0, 0, 9}, {{0, 18, 0, 0x10, 0, 0, 0, 0}, {0x0A}}},
    };
    for (const auto& c : cases) {
        Bytes expected;
        for (const Bytes& part : c.parts) expected.insert(expected.end(), part.begin(), part.end());
        EXPECT_EQ(run(disk, c.cdb).data, expected);
    }
}

// ---- What is refused

TEST(SenseData, SaysWhatIsWrongAndWhereInTheCdb) {
    struct {
        Cdb cdb;
        SenseCode code;
        Bytes pointer;  // the sense-key-specific bytes
    } const cases[] = {
        {{0xC1}, sense::kInvalidOpcode, {0, 0, 0}},
        {{0x12, 1, 0x81, 0, 255}, sense::kInvalidField, {0xC0, 0, 2}},
        {{0x12, 0, 0x80, 0, 255}, sense::kInvalidField, {0xC0, 0, 2}},
        {{0x12, 2, 0, 0, 255}, sense::kInvalidField, {0xC9, 0, 1}},
        {{0x00, 0, 0, 0, 0, 4}, sense::kInvalidField, {0xCA, 0, 5}},
        {{0x03, 1, 0, 0, 18}, sense::kInvalidField, {0xC8, 0, 1}},
        {{0x25, 0, 0, 0, 0, 1}, sense::kInvalidField, {0xC0, 0, 2}},
        {{0x9E, 0x11}, sense::kInvalidField, {0xCC, 0, 1}},
        {{0x28, 0x20, 0, 0, 0, 0, 0, 0, 1}, sense::kInvalidField, {0xCF, 0, 1}},
        {{0x1A, 0, 0x1C, 0, 255}, sense::kInvalidField, {0xCD, 0, 2}},
        {{0x5A, 0, 0x08, 1, 0, 0, 0, 0, 255}, sense::kInvalidField, {0xC0, 0, 3}},
        {{0x1A, 0, 0xC8, 0, 255}, sense::kNoSavedParameters, {0, 0, 0}},
    };
    const Disk disk = disk_of(small_disk());
    for (const auto& c : cases) {
        const Result result = run(disk, c.cdb);
        SCOPED_TRACE(::testing::PrintToString(c.cdb));
        EXPECT_EQ(result.reply.status, ScsiStatus::check_condition);
        EXPECT_EQ(result.code(), c.code);
        EXPECT_EQ(result.reply.sense[0], 0x70);
        EXPECT_EQ(result.reply.sense[7], 10);
        EXPECT_THAT(std::span(result.reply.sense).subspan(15), ElementsAreArray(c.pointer));
        EXPECT_TRUE(result.data.empty());
    }
}

TEST(Condition, StopsTheCommandsThatItConcerns) {
    const Cdb test{0x00}, inquiry{0x12, 0, 0, 0, 36}, capacity{0x25}, capacity16{0x9E, 0x10},
        mode{0x1A, 0, 0x3F, 0, 99}, read = transfer_cdb(0x28, 0, 1), flush{0x35};
    struct {
        const char* name;
        std::optional<SenseCode> condition;
        uint64_t blocks;
        std::vector<Cdb> stopped, carried_out;
        SenseCode answer;
    } const cases[] = {
        {"ready", {}, 8, {}, {test, inquiry, capacity, capacity16, mode, read, flush}, {}},
        {"not ready",
         sense::kNeedsStart,
         8,
         {test, capacity, capacity16, read, flush},
         {inquiry, mode},
         sense::kNeedsStart},
        {"attention",
         sense::kPowerOnReset,
         8,
         {test, capacity, capacity16, mode, read},
         {inquiry},
         sense::kPowerOnReset},
        {"no medium", {}, 0, {test, capacity, capacity16, read, flush}, {inquiry, mode}, sense::kNoMedium},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DiskConfig config = small_disk();
        config.condition = c.condition;
        config.block_count = c.blocks;
        const Disk disk = disk_of(config);
        for (const Cdb& cdb : c.stopped) EXPECT_EQ(run(disk, cdb).code(), c.answer) << int{cdb[0]};
        for (const Cdb& cdb : c.carried_out) EXPECT_TRUE(run(disk, cdb).good()) << int{cdb[0]};
        const Result now = run(disk, {0x03, 0, 0, 0, 255});
        EXPECT_TRUE(now.good());
        EXPECT_THAT(now.data, ElementsAreArray(fixed_sense(c.answer)));
    }
}

TEST(Reservation, KeepsOthersFromTheMediumButNotFromLookingAtTheDisk) {
    DiskConfig config = small_disk();
    config.reserved = true;
    const Disk disk = disk_of(config);
    const Cdb conflicting[] = {transfer_cdb(0x08, 0, 1), transfer_cdb(0x88, 0, 1), {0x5A, 0, 0x3F}, {0x35}};
    for (const Cdb& cdb : conflicting) {
        EXPECT_EQ(run(disk, cdb).reply.status, ScsiStatus::reservation_conflict) << int{cdb[0]};
    }
    EXPECT_EQ(send(disk, transfer_cdb(0x2A, 0, 1), Bytes(512)).reply.status,
              ScsiStatus::reservation_conflict);
    const Cdb allowed[] = {{0x00}, {0x03}, {0x12}, {0x25}, {0x9E, 0x10}};
    for (const Cdb& cdb : allowed) EXPECT_TRUE(run(disk, cdb).good()) << int{cdb[0]};
}

// ---- Reading and writing

struct TransferCase {
    uint8_t read, write;
    uint64_t blocks;
    uint32_t block_size;
};

class Transfer : public ::testing::TestWithParam<TransferCase> {};

TEST_P(Transfer, ReturnsWhatWasWrittenUpToTheLastBlockAndRefusesWhatLiesBehind) {
    const auto& [read, write, blocks, size] = GetParam();
    DiskConfig config = small_disk();
    config.block_count = blocks;
    config.block_size = size;
    const Disk disk = disk_of(config);
    for (const uint64_t lba : {uint64_t{0}, blocks / 2 + 1, blocks - 3}) {
        const Bytes data = pattern(size_t{3} * size, static_cast<uint8_t>(lba));
        const Result written = send(disk, transfer_cdb(write, lba, 3), data);
        EXPECT_TRUE(written.good());
        EXPECT_EQ(written.reply.transferred, data.size());
        EXPECT_EQ(run(disk, transfer_cdb(read, lba, 3)).data, data);
        EXPECT_EQ(run(disk, transfer_cdb(read, lba, 3), size + 5).data,
                  Bytes(data.begin(), data.begin() + size + 5));
    }
    for (const uint64_t lba : {blocks - 2, blocks, blocks + 1}) {
        EXPECT_EQ(run(disk, transfer_cdb(read, lba, 3)).code(), sense::kLbaOutOfRange);
        EXPECT_EQ(send(disk, transfer_cdb(write, lba, 3), Bytes(size_t{3} * size, 1)).code(),
                  sense::kLbaOutOfRange);
    }
    EXPECT_EQ(run(disk, transfer_cdb(read, blocks - 3, 3)).data,
              pattern(size_t{3} * size, static_cast<uint8_t>(blocks - 3)));
    EXPECT_TRUE(all_are(0, run(disk, transfer_cdb(read, 5, 2)).data));
}

INSTANTIATE_TEST_SUITE_P(Lengths, Transfer,
                         ::testing::Values(TransferCase{0x08, 0x0A, 100000, 512},
                                           TransferCase{0x28, 0x2A, 3 * kMiB, 512},
                                           TransferCase{0xA8, 0xAA, 0xFFFFFF00, 4096},
                                           TransferCase{0x88, 0x8A, 0x300000000, 512},
                                           TransferCase{0x88, 0x8A, UINT64_MAX - 8, 4096}));

TEST(Transfer, TakesZeroBlocksForNoneExceptInTheSixByteForm) {
    const Disk disk = disk_of(small_disk());
    for (const uint8_t opcode : {0x28, 0xA8, 0x88}) {
        EXPECT_TRUE(run(disk, transfer_cdb(opcode, 2047, 0)).good());
        EXPECT_EQ(run(disk, transfer_cdb(opcode, 2047, 0)).reply.transferred, 0u);
        EXPECT_EQ(run(disk, transfer_cdb(opcode, 2048, 0)).code(), sense::kLbaOutOfRange);
    }
    EXPECT_EQ(run(disk, transfer_cdb(0x08, 0, 0), 256 * 1024).reply.transferred, 256u * 512);
    EXPECT_EQ(run(disk, transfer_cdb(0x08, 1793, 0), 256 * 1024).code(), sense::kLbaOutOfRange);
}

TEST(Transfer, WritesNothingOfAWriteThatComesShortAndIgnoresWhatIsTooMuch) {
    const Disk disk = disk_of(small_disk());
    EXPECT_EQ(send(disk, transfer_cdb(0x2A, 4, 2), Bytes(1023, 0xAA)).code(), sense::kDataPhaseError);
    EXPECT_TRUE(all_are(0, run(disk, transfer_cdb(0x28, 4, 2)).data));
    EXPECT_EQ(send(disk, transfer_cdb(0x2A, 4, 1), Bytes(1024, 0xAA)).reply.transferred, 512u);
    EXPECT_TRUE(all_are(0xAA, run(disk, transfer_cdb(0x28, 4, 1)).data));
    EXPECT_TRUE(all_are(0, run(disk, transfer_cdb(0x28, 5, 1)).data));
}

TEST(SynchronizeCache, ChecksItsRange) {
    const Disk disk = disk_of(small_disk());
    for (const uint8_t opcode : {0x35, 0x91}) {
        EXPECT_TRUE(run(disk, transfer_cdb(opcode, 0, 0)).good());
        EXPECT_TRUE(run(disk, transfer_cdb(opcode, 2046, 2)).good());
        EXPECT_EQ(run(disk, transfer_cdb(opcode, 2047, 2)).code(), sense::kLbaOutOfRange);
    }
}

// ---- Contents in files

class DirectoryStoreTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string name = (std::filesystem::temp_directory_path() / "scsi_disk_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        base_ = name;
    }
    void TearDown() override {
        std::error_code ignored;
        if (!base_.empty()) std::filesystem::remove_all(base_, ignored);
    }
    std::string lun() const { return base_ / "luns" / "0"; }
    Disk disk() const { return {config_, directory_store(lun(), config_.block_size)}; }

    std::filesystem::path base_;
    DiskConfig config_ = small_disk();
};

TEST_F(DirectoryStoreTest, ShowsEachDiskOnADirectoryWhatTheOthersWrote) {
    const Disk one = disk();
    const Disk other = disk();
    EXPECT_TRUE(all_are(0, run(other, transfer_cdb(0x28, 7, 2)).data));
    ASSERT_TRUE(send(one, transfer_cdb(0x2A, 7, 2), pattern(1024, 1)).good());
    EXPECT_EQ(run(other, transfer_cdb(0x28, 7, 2)).data, pattern(1024, 1));
    ASSERT_TRUE(send(other, transfer_cdb(0x2A, 8, 1), pattern(512, 2)).good());
    EXPECT_EQ(run(one, transfer_cdb(0x28, 8, 1)).data, pattern(512, 2));
    EXPECT_TRUE(all_are(0, run(one, transfer_cdb(0x28, 9, 40)).data));
}

TEST_F(DirectoryStoreTest, HoldsDisksFarLargerThanAFileMayBe) {
    config_.block_size = 4096;
    config_.block_count = UINT64_MAX;
    const uint64_t border = (uint64_t{1} << 40) / 4096;  // where one file ends and the next begins
    for (const uint64_t lba : {border - 1, 5 * border - 2, UINT64_MAX - 4}) {
        const Bytes data = pattern(size_t{4} * 4096, static_cast<uint8_t>(lba));
        ASSERT_TRUE(send(disk(), transfer_cdb(0x8A, lba, 4), data).good());
        EXPECT_EQ(run(disk(), transfer_cdb(0x88, lba, 4)).data, data);
    }
    for (const auto& file : std::filesystem::directory_iterator(lun())) {
        EXPECT_LE(file.file_size(), uint64_t{1} << 40) << file.path();
    }
}

TEST_F(DirectoryStoreTest, ReportsAMediumThatFailsWithTheBlock) {
    std::filesystem::create_directories(std::filesystem::path(lun()) / "blocks-0");  // no file can be there
    errno = 0;
    const Result read = run(disk(), transfer_cdb(0x28, 0x123, 2));
    EXPECT_EQ(read.code(), sense::kReadError);
    EXPECT_EQ(read.reply.sense[0], 0xF0);
    EXPECT_EQ(get_be(read.reply.sense, 3, 4), 0x123u);
    const Result write = send(disk(), transfer_cdb(0x2A, 0x124, 2), Bytes(1024));
    EXPECT_EQ(write.code(), sense::kWriteError);
    EXPECT_EQ(get_be(write.reply.sense, 3, 4), 0x124u);
    EXPECT_EQ(errno, 0);
}

TEST_F(DirectoryStoreTest, FailsWhereItsDirectoryCannotBe) {
    std::ofstream(base_ / "luns") << "a file";
    EXPECT_EQ(send(disk(), transfer_cdb(0x2A, 0, 1), Bytes(512)).code(), sense::kWriteError);
}

// ---- Targets

ScsiTarget target_of(const std::vector<std::pair<uint16_t, LunAddressing>>& luns) {
    std::vector<ScsiLun> units;
    for (const auto& [number, addressing] : luns) {
        DiskConfig config = small_disk();
        config.block_count = number + 1u;  // tells the LUNs apart
        units.push_back({number, addressing, disk_of(config)});
    }
    return ScsiTarget(std::move(units));
}

Result run(const ScsiTarget& target, uint32_t lun, uint32_t lun_ext, const Cdb& cdb, size_t room = 65536) {
    return run_in(cdb, room, [&](const ScsiRequest& request) { return target.run(lun, lun_ext, request); });
}

Cdb report_luns(uint8_t select, uint32_t allocation) {
    Cdb cdb{0xA0, 0, select};
    put_be(cdb, 6, 4, allocation);
    return cdb;
}

TEST(Target, IsReachedByEitherWayOfAddressing) {
    const ScsiTarget target =
        target_of({{5, LunAddressing::peripheral}, {9, LunAddressing::flat}, {0x3FFF, LunAddressing::flat}});
    struct {
        uint32_t lun, lun_ext;
        std::optional<uint32_t> last_block;
    } const cases[] = {
        {5, 0, 5},           {0x4005, 0, 5},  {9, 0, 9},       {0x4009, 0, 9},
        {0x7FFF, 0, 0x3FFF}, {0x3FFF, 0, {}}, {0x0105, 0, {}}, {6, 0, {}},
        {0x8005, 0, {}},     {0xC105, 0, {}}, {5, 1, {}},      {0x10005, 0, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << std::hex << c.lun << " " << c.lun_ext);
        const Result result = run(target, c.lun, c.lun_ext, {0x25});
        if (c.last_block) {
            ASSERT_EQ(result.data.size(), 8u);
            EXPECT_EQ(get_be(result.data, 0, 4), *c.last_block);
        } else {
            EXPECT_EQ(result.code(), sense::kLunNotSupported);
        }
    }
}

TEST(Target, ListsItsLunsInOrderEachByItsOwnAddress) {
    const ScsiTarget target = target_of(
        {{300, LunAddressing::peripheral}, {2, LunAddressing::flat}, {1, LunAddressing::peripheral}});
    const Bytes list{0,    0, 0, 24, 0, 0, 0, 0, 0,    1,    0, 0, 0, 0, 0, 0,
                     0x40, 2, 0, 0,  0, 0, 0, 0, 0x41, 0x2C, 0, 0, 0, 0, 0, 0};
    EXPECT_EQ(run(target, 0, 0, report_luns(0, 16384)).data, list);
    EXPECT_EQ(run(target, 0x4000, 0, report_luns(2, 16384)).data, list);
    EXPECT_EQ(run(target, 1, 0, report_luns(0, 16384)).data, list);
    EXPECT_TRUE(all_are(0, run(target, 0, 0, report_luns(1, 16384)).data));
    EXPECT_EQ(run(target, 0, 0, report_luns(3, 16384)).code(), sense::kInvalidField);
    EXPECT_EQ(run(target, 7, 0, report_luns(0, 16384)).code(), sense::kLunNotSupported);
    for (uint32_t length = 0; length <= list.size(); ++length) {
        EXPECT_EQ(run(target, 0, 0, report_luns(0, length)).data, Bytes(list.begin(), list.begin() + length));
    }
    EXPECT_THAT(run(target_of({}), 0, 0, report_luns(0, 16)).data, ElementsAreArray(Bytes(8)));
}

TEST(Target, CountsLunsThatTheHostHasNoRoomFor) {
    std::vector<std::pair<uint16_t, LunAddressing>> luns;
    for (uint16_t number = 0; number < 3000; ++number) luns.emplace_back(number, LunAddressing::peripheral);
    const Bytes cut = run(target_of(luns), 0, 0, report_luns(0, 16384), 16384).data;
    ASSERT_EQ(cut.size(), 16384u);
    EXPECT_EQ(get_be(cut, 0, 4), 3000u * 8);
    EXPECT_EQ(get_be(cut, 16376, 8), uint64_t{0x4000 | 2046} << 48);
}

TEST(Target, AnswersForALunThatIsNotThere) {
    const ScsiTarget target = target_of({{1, LunAddressing::peripheral}});
    for (const uint32_t lun : {0u, 2u, 0xFFFFFFFFu}) {
        const Bytes inquiry = run(target, lun, 0, {0x12, 0, 0, 0, 36}).data;
        ASSERT_EQ(inquiry.size(), 36u);
        EXPECT_EQ(inquiry[0], 0x7F);
        EXPECT_THAT(run(target, lun, 0, {0x03, 0, 0, 0, 18}).data,
                    ElementsAreArray(fixed_sense(sense::kLunNotSupported)));
        EXPECT_EQ(run(target, lun, 0, {0x12, 1, 0x80, 0, 36}).code(), sense::kLunNotSupported);
        EXPECT_EQ(run(target, lun, 0, {0x00}).code(), sense::kLunNotSupported);
    }
}

// ---- Driver records

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

    ScsiTarget target = target_of({{1, LunAddressing::flat}});
    Bytes area;
    std::unique_ptr<Record> record;
};

template <typename Record>
class ScsiExchange : public ::testing::Test {};
using Records = ::testing::Types<kronfc_scsi_cmd, dorfc_scsi_cmd>;
TYPED_TEST_SUITE(ScsiExchange, Records);

TYPED_TEST(ScsiExchange, MovesDataBothWaysAndTellsHowMuch) {
    Exchange<TypeParam> exchange;
    const Bytes data = pattern(1024, 9);
    std::ranges::copy(data, exchange.data());
    EXPECT_EQ(exchange.run(2, 10, transfer_cdb(0x2A, 0, 2), 2000), 0u);
    EXPECT_EQ(exchange.record->data_len, 1024u);
    std::fill_n(exchange.data(), 1024, uint8_t{0});
    EXPECT_EQ(exchange.run(1, 10, transfer_cdb(0x28, 0, 2), 1000), 0u);
    EXPECT_EQ(exchange.record->data_len, 1000u);
    EXPECT_THAT(std::span(exchange.data(), 1000), ElementsAreArray(std::span(data).first(1000)));
    EXPECT_TRUE(all_are(0, std::span(exchange.data() + 1000, 24)));
    EXPECT_EQ(exchange.record->sense_len, 0);
}

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
        EXPECT_TRUE(all_are(0, std::span(exchange.record->sense).subspan(expected)));
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
    DiskConfig config = small_disk();
    config.reserved = true;
    exchange.target = ScsiTarget({{1, LunAddressing::flat, disk_of(config)}});
    EXPECT_EQ(exchange.run(1, 10, transfer_cdb(0x28, 0, 1), 512), kScsiExchangeReserved);
    EXPECT_EQ(exchange.record->sense_len, 0);
}

}  // namespace
}  // namespace hostsim
