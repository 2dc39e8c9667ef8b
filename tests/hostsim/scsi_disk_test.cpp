// scsi_disk_test.cpp - simulated disks and targets: the answer to each command byte by byte, and reading
// written data. An answer is the SCSI status with the data or the sense data. A command never writes beyond
// the bytes that it reports as sent.
#include "scsi_disk.h"

#include <gtest/gtest.h>

#include "scsi_target.h"

namespace hostsim {
namespace {

using Bytes = std::vector<uint8_t>;

// Hexadecimal bytes, separated by spaces.
Bytes hex(const std::string& digits) {
    Bytes all;
    std::istringstream in(digits);
    for (unsigned byte = 0; in >> std::hex >> byte;) all.push_back(static_cast<uint8_t>(byte));
    return all;
}
Bytes text(std::string_view characters) { return {characters.begin(), characters.end()}; }
Bytes zeros(size_t count) { return Bytes(count); }

Bytes operator+(Bytes first, std::span<const uint8_t> then) {
    first.insert(first.end(), then.begin(), then.end());
    return first;
}
Bytes good(const Bytes& data = {}) { return Bytes{0} + data; }
// The last bytes point at the wrong field of the CDB.
Bytes refused(SenseCode code, const char* field = "00 00 00") {
    return Bytes{2, 0x70, 0, code.key, 0, 0, 0, 0, 10, 0, 0, 0, 0, code.asc, code.ascq, 0} + hex(field);
}

template <typename Unit>
Bytes ask(const Unit& unit, const Bytes& cdb, size_t room = 65536, const Bytes& data_out = {}) {
    Bytes buffer(room + 16, 0xE7);
    ScsiRequest request;
    std::ranges::copy(cdb, request.cdb.begin());
    request.data_out = data_out;
    if (data_out.empty()) request.data_in = std::span(buffer).first(room);
    const ScsiReply reply = unit.run(request);
    const size_t came = std::min(data_out.empty() ? reply.transferred : 0, room);
    EXPECT_TRUE(std::all_of(buffer.begin() + static_cast<ptrdiff_t>(came), buffer.end(),
                            [](uint8_t byte) { return byte == 0xE7; }));
    const Bytes status{static_cast<uint8_t>(reply.status)};
    if (reply.status == ScsiStatus::good) return status + std::span(buffer).first(came);
    return reply.status == ScsiStatus::check_condition ? status + reply.sense : status;
}

DiskConfig config_of(uint64_t blocks, uint32_t block_size = 512) {
    DiskConfig config;
    config.vendor = "CALVEXA", config.product = "ULVARD VOLUME, LONG NAME";
    config.revision = "05", config.serial = "CX0000017";
    config.naa = 0x5000C500A1B2C3D4, config.device_type = 0x2D;
    config.block_count = blocks, config.block_size = block_size;
    return config;
}
Disk disk_of(const DiskConfig& config) { return {config, memory_store(config.block_size)}; }

TEST(Disk, AnswersEachCommandToTheByteAndFitsItsBuffer) {
    const Disk large = disk_of(config_of(0x123456789A)), small = disk_of(config_of(2048));
    const SenseCode field = sense::kInvalidField, range = sense::kLbaOutOfRange;
    const struct {
        const Disk& disk;
        const char* cdb;
        Bytes answer;
    } rows[]{
        {large, "12 00 00 00 FF",
         good(hex("2D 00 06 12 5B 00 00 02") + text("CALVEXA ULVARD VOLUME, L05  ") + zeros(22) +
              hex("00 A0 0A 40 04 60 04 C0") + zeros(30))},
        {large, "12 01 00 00 FF", good(hex("2D 00 00 05 00 80 83 B0 B1"))},
        {large, "12 01 80 00 FF", good(hex("2D 80 00 09") + text("CX0000017"))},
        {large, "12 01 83 00 FF",
         good(hex("2D 83 00 31 01 03 00 08 50 00 C5 00 A1 B2 C3 D4 02 01 00 21") +
              text("CALVEXA ULVARD VOLUME, LCX0000017"))},
        {large, "12 01 B0 00 FF", good(hex("2D B0 00 3C 00 00 00 08 00 00 00 00 00 00 02 00") + zeros(48))},
        {large, "03 00 00 00 FF", good(hex("70 00 00 00 00 00 00 0A") + zeros(10))},
        {small, "25", good(hex("00 00 07 FF 00 00 02 00"))},
        {small, "25 00 00 00 00 01 FF FF 01", good(hex("00 00 07 FF 00 00 02 00"))},
        {small, "25 00 00 00 00 00 FF FF 00", good(hex("00 00 07 FF 00 00 02 00"))},
        {small, "25 00 00 00 00 01 00 00 00", refused(field, "C0 00 02")},
        {large, "9E 10 00 00 00 00 00 00 00 00 00 00 00 0C",
         good(hex("00 00 00 12 34 56 78 99 00 00 02 00"))},
        {large, "1A 08 3F 00 FF",
         good(hex("23 00 10 00 08 12") + zeros(18) + hex("0A 0A 00 10 00 00 00 00 FF FF 00 00"))},
        {large, "5A 10 0A 00 00 00 00 01 00",
         good(hex("00 22 00 10 01 00 00 10 00 00 00 12 34 56 78 9A 00 00 00 00 00 00 02 00 0A 0A 00 10 00 00 "
                  "00 00 FF FF 00 00"))},
        {small, "C1", refused(sense::kInvalidOpcode)},
        {small, "1A 00 C8 00 FF", refused(sense::kNoSavedParameters)},
        {small, "12 00 80 00 FF", refused(field, "C0 00 02")},
        {small, "00 00 00 00 00 04", refused(field, "CA 00 05")},
        {small, "28 20 00 00 00 00 00 00 01", refused(field, "CF 00 01")},
        {small, "1A 00 1C 00 FF", refused(field, "CD 00 02")},
        {small, "08 00 07 01 00", refused(range)},  // 0 stands for 256 blocks
        {small, "35 00 00 00 07 FF 00 00 02", refused(range)},
    };
    for (const auto& [disk, cdb, answer] : rows) {
        SCOPED_TRACE(cdb);
        EXPECT_EQ(ask(disk, hex(cdb)), answer);
        if (answer[0] != 0 || answer.size() == 1) continue;
        EXPECT_EQ(ask(disk, hex(cdb), answer.size() - 2), Bytes(answer.begin(), answer.end() - 1));
    }
}

// A READ or WRITE command. The length of the command decides where its fields are.
Bytes transfer(uint8_t opcode, uint64_t lba, uint32_t blocks) {
    constexpr size_t kLayouts[][4]{{1, 3, 4, 1}, {2, 4, 7, 2}, {2, 4, 7, 2}, {}, {2, 8, 10, 4}, {2, 4, 6, 4}};
    const auto& [lba_at, lba_width, blocks_at, blocks_width] = kLayouts[opcode >> 5];
    Bytes cdb(16);
    cdb[0] = opcode;
    put_be(cdb, lba_at, lba_width, lba);
    put_be(cdb, blocks_at, blocks_width, blocks);
    return cdb;
}

TEST(Disk, ReturnsWrittenBlocksAndRefusesThoseBeyondTheLast) {
    const std::tuple<uint8_t, uint8_t, uint64_t, uint32_t, uint32_t> rows[]{
        {0x08, 0x0A, 0x1FFFF0, 512, 255},
        {0x28, 0x2A, 0x300000, 512, 300},
        {0xA8, 0xAA, 0xFFFFFF00, 4096, 300},
        {0x88, 0x8A, 0x300000000, 512, 300},
        {0x88, 0x8A, UINT64_MAX - 8, 4096, 3}};
    for (const auto& [read, write, blocks, size, count] : rows) {
        SCOPED_TRACE(int{read});
        const Disk disk = disk_of(config_of(blocks, size));
        const size_t length = size_t{count} * size;
        const auto pattern = [length](uint64_t lba) {
            Bytes data(length);
            for (size_t i = 0; i < length; ++i) data[i] = static_cast<uint8_t>(lba * 7 + i * 31 + i / 251);
            return data;
        };
        for (const uint64_t lba : {uint64_t{0}, blocks / 2 + 1, blocks - count}) {
            EXPECT_EQ(ask(disk, transfer(write, lba, count), 0, pattern(lba)), good());
            EXPECT_EQ(ask(disk, transfer(read, lba, count), length), good(pattern(lba)));
        }
        for (const uint64_t lba : {blocks - count + 1, blocks, blocks + 1}) {
            EXPECT_EQ(ask(disk, transfer(read, lba, count)), refused(sense::kLbaOutOfRange));
            EXPECT_EQ(ask(disk, transfer(write, lba, count), 0, pattern(1)), refused(sense::kLbaOutOfRange));
        }
        EXPECT_EQ(ask(disk, transfer(write, 0, 2), 0, Bytes(2 * size - 1)), refused(sense::kDataPhaseError));
        EXPECT_EQ(ask(disk, transfer(write, 0, 1), 0, Bytes(2 * size)), good()) << "more than announced";
        Bytes first = pattern(0);
        std::fill_n(first.begin(), size, uint8_t{0});
        EXPECT_EQ(ask(disk, transfer(read, 0, count), length), good(first));
        EXPECT_EQ(ask(disk, transfer(read, count, 2), 2 * size), good(Bytes(2 * size))) << "never written";
    }
}

// A target by one of its addresses.
struct At {
    const ScsiTarget& target;
    uint32_t lun, lun_ext = 0;
    ScsiReply run(const ScsiRequest& request) const { return target.run(lun, lun_ext, request); }
};

ScsiTarget target_of(const std::vector<std::pair<uint16_t, LunAddressing>>& luns) {
    std::vector<ScsiLun> units;
    for (const auto& [number, addressing] : luns)
        units.push_back({number, addressing, disk_of(config_of(number + 1u))});  // distinguishes the LUNs
    return ScsiTarget(std::move(units));
}

TEST(Target, ListsItsLunsInOrderAndAnswersForMissingOnes) {
    const ScsiTarget target = target_of(
        {{300, LunAddressing::peripheral}, {2, LunAddressing::flat}, {1, LunAddressing::peripheral}});
    const Bytes list = good(hex(
        "00 00 00 18 00 00 00 00 00 01 00 00 00 00 00 00 40 02 00 00 00 00 00 00 41 2C 00 00 00 00 00 00"));
    const Bytes nobody = refused(sense::kLunNotSupported);
    const std::tuple<uint32_t, const char*, Bytes> rows[]{
        {0, "A0 00 00 00 00 00 00 00 40 00", list},
        {0x4000, "A0 00 02 00 00 00 00 00 40 00", list},
        {0, "A0 00 00 00 00 00 00 00 00 0B", Bytes(list.begin(), list.begin() + 12)},
        {0, "A0 00 01 00 00 00 00 00 40 00", good(zeros(8))},
        {0, "A0 00 03 00 00 00 00 00 40 00", refused(sense::kInvalidField, "C0 00 02")},
        {7, "A0 00 00 00 00 00 00 00 40 00", nobody},
        {0, "12 00 00 00 24", good(hex("7F 00 06 12 5B 00 00 02") + text("                            "))},
        {0, "03 00 00 00 12", good(Bytes(nobody.begin() + 1, nobody.end()))},
        {7, "12 01 80 00 24", nobody},
        {0xFFFFFFFF, "00", nobody},
        {0x8001, "00", nobody},
        {0x10001, "00", nobody},
        {0x4001, "25", good(hex("00 00 00 01 00 00 02 00"))},
        {0x412C, "25", good(hex("00 00 01 2C 00 00 02 00"))},
    };
    EXPECT_EQ(ask(At{target, 1, 1}, {0}), nobody);
    for (const auto& [lun, cdb, answer] : rows) EXPECT_EQ(ask(At{target, lun}, hex(cdb)), answer) << cdb;
}

}  // namespace
}  // namespace hostsim
