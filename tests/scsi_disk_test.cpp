// scsi_disk_test.cpp - the simulated disks and targets: what each command answers, what stands in its way,
// and how it travels in a driver's record.
#include "scsi_disk.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "scsi_target.h"

namespace hostsim {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

using Bytes = std::vector<uint8_t>;
using Cdb = std::array<uint8_t, 16>;

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

Bytes part(const Bytes& data, size_t at, size_t width) {
    const auto bytes = std::span(data).subspan(at, width);
    return {bytes.begin(), bytes.end()};
}

Bytes text(std::string_view characters) { return {characters.begin(), characters.end()}; }

// ---- Identity

TEST(Inquiry, DescribesTheDeviceInPaddedText) {
    DiskConfig config = small_disk();
    config.device_type = 0x2D;
    const Bytes data = run(disk_of(config), {0x12, 0, 0, 0, 255}).data;
    ASSERT_EQ(data.size(), 96u);
    EXPECT_EQ(part(data, 0, 5), (Bytes{0x2D, 0x00, 0x06, 0x12, 91}));
    EXPECT_EQ(part(data, 8, 28), text("CALVEXA ULVARD VOLUME, L05  "));
    EXPECT_EQ(run(disk_of(config), {0x12, 1, 0x80, 0, 255}).data[0], 0x2D);
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

TEST(Inquiry, HasFourVitalProductDataPages) {
    const Disk disk = disk_of(small_disk());
    EXPECT_THAT(run(disk, {0x12, 1, 0x00, 0, 255}).data, ElementsAre(0, 0x00, 0, 4, 0x00, 0x80, 0x83, 0xB0));
    EXPECT_EQ(run(disk, {0x12, 1, 0x80, 0, 255}).data, text(std::string_view("\0\x80\0\x09"
                                                                             "CX0000017",
                                                                             13)));

    const Bytes names = run(disk, {0x12, 1, 0x83, 0, 255}).data;
    ASSERT_EQ(names.size(), 53u);
    EXPECT_THAT(part(names, 0, 20), ElementsAre(0, 0x83, 0, 49, 1, 3, 0, 8, 0x50, 0x00, 0xC5, 0x00, 0xA1,
                                                0xB2, 0xC3, 0xD4, 2, 1, 0, 33));
    EXPECT_EQ(part(names, 20, 33), text("CALVEXA ULVARD VOLUME, LCX0000017"));

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
    const Disk disk = disk_of(small_disk());
    EXPECT_EQ(run(disk, {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12}).data.size(), 12u);
    EXPECT_EQ(run(disk, {0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}).data.size(), 32u);
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
    enum : unsigned { kUnready = 1, kAttention = 2, kReserved = 4, kEverything = 7 };
    struct {
        Cdb cdb;
        unsigned stopped_by;
    } const commands[] = {{{0x00}, kUnready | kAttention},
                          {{0x03, 0, 0, 0, 18}, 0},
                          {{0x12, 0, 0, 0, 36}, 0},
                          {{0x25}, kUnready | kAttention},
                          {{0x9E, 0x10}, kUnready | kAttention},
                          {{0x1A, 0, 0x3F, 0, 99}, kAttention | kReserved},
                          {{0x5A, 0, 0x3F}, kAttention | kReserved},
                          {transfer_cdb(0x08, 0, 1), kEverything},
                          {transfer_cdb(0x88, 0, 1), kEverything},
                          {{0x35}, kEverything}};
    struct {
        unsigned kind;
        std::optional<SenseCode> condition;
        uint64_t blocks;
        ScsiReply answer;
    } const conditions[] = {{0, {}, 8, {}},
                            {kUnready, sense::kNeedsStart, 8, check_condition(sense::kNeedsStart)},
                            {kUnready, {}, 0, check_condition(sense::kNoMedium)},
                            {kAttention, sense::kPowerOnReset, 8, check_condition(sense::kPowerOnReset)},
                            {kReserved, {}, 8, {ScsiStatus::reservation_conflict, 0, {}}}};
    for (const auto& [kind, condition, blocks, answer] : conditions) {
        DiskConfig config = small_disk();
        config.condition = condition;
        config.block_count = blocks;
        config.reserved = kind == kReserved;
        const Disk disk = disk_of(config);
        for (const auto& [cdb, stopped_by] : commands) {
            SCOPED_TRACE(::testing::Message() << "condition " << kind << ", command " << int{cdb[0]});
            const Result result = run(disk, cdb);
            const bool stopped = (stopped_by & kind) != 0;
            EXPECT_EQ(result.reply.status, stopped ? answer.status : ScsiStatus::good);
            EXPECT_EQ(result.reply.sense, stopped ? answer.sense : SenseData{});
        }
        const SenseCode now = Result{answer, {}}.code();
        EXPECT_THAT(run(disk, {0x03, 0, 0, 0, 255}).data, ElementsAreArray(fixed_sense(now)));
    }
}

// ---- Reading and writing

struct TransferCase {
    uint8_t read, write;
    uint64_t blocks;
    uint32_t block_size;
    uint32_t count;  // blocks of one transfer
};

class TransferLength : public ::testing::TestWithParam<TransferCase> {};

TEST_P(TransferLength, ReturnsWhatWasWrittenUpToTheLastBlockAndRefusesWhatLiesBehind) {
    const auto& [read, write, blocks, size, count] = GetParam();
    const size_t bytes = size_t{count} * size;
    DiskConfig config = small_disk();
    config.block_count = blocks;
    config.block_size = size;
    const Disk disk = disk_of(config);
    for (const uint64_t lba : {uint64_t{0}, blocks / 2 + 1, blocks - count}) {
        const Bytes data = pattern(bytes, static_cast<uint8_t>(lba));
        const Result written = send(disk, transfer_cdb(write, lba, count), data);
        EXPECT_TRUE(written.good());
        EXPECT_EQ(written.reply.transferred, data.size());
        EXPECT_EQ(run(disk, transfer_cdb(read, lba, count), bytes).data, data);
        EXPECT_EQ(run(disk, transfer_cdb(read, lba, count), size + 5).data,
                  Bytes(data.begin(), data.begin() + size + 5));
    }
    for (const uint64_t lba : {blocks - count + 1, blocks, blocks + 1}) {
        EXPECT_EQ(run(disk, transfer_cdb(read, lba, count)).code(), sense::kLbaOutOfRange);
        EXPECT_EQ(send(disk, transfer_cdb(write, lba, count), Bytes(bytes, 1)).code(), sense::kLbaOutOfRange);
    }
    EXPECT_EQ(run(disk, transfer_cdb(read, blocks - count, count), bytes).data,
              pattern(bytes, static_cast<uint8_t>(blocks - count)));
    EXPECT_TRUE(all_are(0, run(disk, transfer_cdb(read, count, 2)).data));
}

INSTANTIATE_TEST_SUITE_P(Commands, TransferLength,
                         ::testing::Values(TransferCase{0x08, 0x0A, 0x1FFFF0, 512, 255},
                                           TransferCase{0x28, 0x2A, 0x300000, 512, 300},
                                           TransferCase{0xA8, 0xAA, 0xFFFFFF00, 4096, 300},
                                           TransferCase{0x88, 0x8A, 0x300000000, 512, 300},
                                           TransferCase{0x88, 0x8A, UINT64_MAX - 8, 4096, 3}));

TEST(Transfer, TakesZeroBlocksForNoneExceptInTheSixByteForm) {
    const Disk disk = disk_of(small_disk());
    for (const uint8_t opcode : {0x28, 0xA8, 0x88}) {
        EXPECT_TRUE(run(disk, transfer_cdb(opcode, 2047, 0)).good());
        EXPECT_EQ(run(disk, transfer_cdb(opcode, 2047, 0)).reply.transferred, 0u);
        EXPECT_EQ(run(disk, transfer_cdb(opcode, 2048, 0)).code(), sense::kLbaOutOfRange);
    }
    for (const uint8_t opcode : {0xA8, 0x88}) {  // counts that only their wide field can hold
        EXPECT_EQ(run(disk, transfer_cdb(opcode, 0, 0x10000)).code(), sense::kLbaOutOfRange);
        EXPECT_EQ(run(disk, transfer_cdb(opcode, 0, 0x1000000)).code(), sense::kLbaOutOfRange);
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

// Fails behind the first block, as a disk with one good block would.
class FailingStore final : public BlockStore {
  public:
    FailingStore() : BlockStore(512) {}

  private:
    size_t do_read(uint64_t first, std::span<uint8_t> data) const override {
        return good(first, data.size());
    }
    size_t do_write(uint64_t first, std::span<const uint8_t> data) override {
        return good(first, data.size());
    }
    static size_t good(uint64_t first, size_t size) { return first == 0 ? std::min<size_t>(size, 512) : 0; }
};

TEST(MediumError, NamesTheBlockThatFailed) {
    DiskConfig config = small_disk();
    config.block_count = 0x300000000;
    const Disk disk(config, std::make_shared<FailingStore>());
    struct {
        uint64_t lba;
        uint32_t failed;
        uint8_t response;  // with a bit that says whether a block is named
    } const cases[] = {{0, 1, 0xF0}, {0xFFFFFFFF, 0xFFFFFFFF, 0xF0}, {0x100000000, 0, 0x70}};
    for (const auto& c : cases) {
        const Result read = run(disk, transfer_cdb(0x88, c.lba, 2));
        const Result written = send(disk, transfer_cdb(0x8A, c.lba, 2), Bytes(1024));
        EXPECT_EQ(read.code(), sense::kReadError);
        EXPECT_EQ(written.code(), sense::kWriteError);
        for (const Result& result : {read, written}) {
            EXPECT_EQ(result.reply.sense[0], c.response);
            EXPECT_EQ(get_be(result.reply.sense, 3, 4), c.failed);
        }
    }
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

}  // namespace
}  // namespace hostsim
