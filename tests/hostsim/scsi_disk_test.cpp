// scsi_disk_test.cpp - a simulated disk writes only those bytes of its caller's buffer that it reports as sent.
// tests/trelmctl/golden/disks.txt shows what they are.
#include "scsi_disk.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace hostsim {
namespace {

TEST(Disk, WritesNoByteBeyondThoseThatItReports) {
    DiskConfig config;
    config.block_count = 8;
    const Disk disk(config, memory_store(config.block_size));
    const struct {
        decltype(ScsiRequest::cdb) cdb;
        size_t size;
    } rows[]{{{0x03, 0, 0, 0, 255}, 18},
             {{0x12, 0, 0, 0, 255}, 96},
             {{0x12, 0, 0, 0, 6}, 6},
             {{0x12, 1, 0xB0, 0, 255}, 64},
             {{0x1A, 8, 0x3F, 0, 255}, 36},
             {{0x25}, 8},
             {{0x28, 0, 0, 0, 0, 1, 0, 0, 2}, 1024},
             {{0x9E, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255}, 32},
             {{0xC1}, 0}};
    for (const auto& [cdb, size] : rows)
        for (const size_t room : {size_t{0}, size_t{5}, size_t{65536}}) {
            std::vector<uint8_t> buffer(room + 16, 0xE7);
            ScsiRequest request;
            request.cdb = cdb;
            request.data_in = std::span(buffer).first(room);
            const size_t sent = disk.run(request).transferred;
            EXPECT_EQ(sent, std::min(size, room)) << +cdb[0];
            const auto unsent = std::span(buffer).subspan(sent);
            EXPECT_EQ(std::ranges::count(unsent, 0xE7), std::ssize(unsent)) << +cdb[0];
        }
}

}  // namespace
}  // namespace hostsim
