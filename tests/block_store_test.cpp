// block_store_test.cpp - the contents of simulated LUNs: kept in files that processes share.
#include "block_store.h"

#include <gtest/gtest.h>

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

using DirectoryStore = trelm::test::Programs;

TEST_F(DirectoryStore, ShowsEveryProcessWhatTheOthersWroteWhereverItLies) {
    constexpr uint64_t kFile = uint64_t{1} << 40;
    const auto store = directory_store(at("luns"), kBlock);
    Bytes data(4 * kBlock);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i / 7);
    // Files end and the next begin within these.
    for (const uint64_t first : {kFile / kBlock - 1, 5 * kFile / kBlock - 2, UINT64_MAX - 3}) {
        EXPECT_EQ(read(*store, first, data.size()), Bytes(data.size()));
        const auto write = [&] {
            return directory_store(at("luns"), kBlock)->write(first, data) == data.size();
        };
        EXPECT_EQ(trelm::test::in_child([&] { return write() ? 0 : 1; }), 0);
        EXPECT_EQ(read(*store, first, data.size()), data);
    }
    for (const auto& file : std::filesystem::directory_iterator(at("luns")))
        EXPECT_LE(file.file_size(), kFile) << file.path();
}

}  // namespace
}  // namespace hostsim
