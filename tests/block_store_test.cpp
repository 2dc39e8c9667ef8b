// block_store_test.cpp - the contents of simulated LUNs: kept in files that processes share, or in memory.
#include "block_store.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>

#include "support/child.h"
#include "support/programs.h"

namespace hostsim {
namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kBlock = 4096;

Bytes read(const BlockStore& store, uint64_t first, size_t size) {
    Bytes data(size, 0xE7);
    data.resize(store.read(first, data));
    return data;
}

class DirectoryStore : public trelm::test::Programs {
  protected:
    std::shared_ptr<BlockStore> open() const { return directory_store(at("luns"), kBlock); }
};

TEST_F(DirectoryStore, ShowsEveryProcessWhatTheOthersWrote) {
    const auto store = open();
    EXPECT_EQ(read(*store, 7, 2 * kBlock), Bytes(2 * kBlock));
    ASSERT_EQ(
        trelm::test::in_child([&] {
            return open()->write(7, Bytes(kBlock, 1)) == kBlock && store->write(8, Bytes(9, 2)) == 9 ? 0 : 1;
        }),
        0);
    Bytes expected(2 * kBlock);
    std::fill_n(expected.begin(), kBlock, uint8_t{1});
    std::fill_n(expected.begin() + kBlock, 9, uint8_t{2});
    EXPECT_EQ(read(*store, 7, 2 * kBlock), expected);
}

TEST_F(DirectoryStore, IsNotBoundToWhatAFileCanHold) {
    constexpr uint64_t kFile = uint64_t{1} << 40;
    constexpr uint64_t kBorder = kFile / kBlock;  // where one file ends and the next begins
    Bytes data(4 * kBlock);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i / 7);
    for (const uint64_t first : {kBorder - 1, 5 * kBorder - 2, UINT64_MAX - 3}) {
        EXPECT_EQ(open()->write(first, data), data.size());
        EXPECT_EQ(read(*open(), first, data.size()), data);
    }
    for (const auto& file : std::filesystem::directory_iterator(at("luns"))) {
        EXPECT_LE(file.file_size(), kFile) << file.path();
    }
}

TEST_F(DirectoryStore, ReportsHowFarItCameAndLeavesErrnoAlone) {
    std::filesystem::create_directories(at("luns/blocks-1"));  // no file can be there
    constexpr uint64_t kLastOfFile = (uint64_t{1} << 40) / kBlock - 1;
    errno = 0;
    EXPECT_EQ(read(*open(), kLastOfFile, 3 * kBlock).size(), kBlock);
    EXPECT_EQ(open()->write(kLastOfFile, Bytes(3 * kBlock)), kBlock);
    EXPECT_EQ(errno, 0);
    write("file", "");
    EXPECT_EQ(directory_store(at("file/luns"), kBlock)->write(0, Bytes(kBlock)), 0u) << "no directory can be";
}

TEST(MemoryStore, KeepsWhatWasWrittenAcrossItsPages) {
    const auto store = memory_store(512);
    Bytes data(200'000);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i / 7);
    for (const uint64_t first : {uint64_t{1}, uint64_t{1} << 60}) {
        EXPECT_EQ(store->write(first, data), data.size());
        EXPECT_EQ(read(*store, first, data.size()), data);
    }
    EXPECT_EQ(read(*store, 0, 512), Bytes(512));
    EXPECT_EQ(read(*store, 5000, 512), Bytes(512));
}

}  // namespace
}  // namespace hostsim
