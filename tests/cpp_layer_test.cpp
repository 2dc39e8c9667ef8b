// cpp_layer_test.cpp - the C++ layer on the public interface: what it owns and gives back, what it makes of
// failures, and listings that hold whatever a driver announces.
#include <gtest/gtest.h>

#include <array>
#include <utility>

#include "host.h"
#include "hosts.h"
#include "trelm_driver_records.h"
#include "trelm_mgmt.hpp"

namespace {

using hostsim::Host;
using hostsim::Operation;
namespace hosts = hostsim::hosts;

hostsim::Model storage_host() {
    hostsim::Model model = hosts::kron_ports(2, 2);
    hosts::add_target(hosts::port(model, 0), 1, 20);
    hosts::add_target(hosts::port(model, 0), 127, 2);
    return model;
}

TEST(CppLayer, GivesBackWhatItTook) {
    Host host(storage_host());
    uint32_t handle = 0;
    {
        const trelm::Library library;
        ASSERT_EQ(library.port_count(), 2u);
        {
            trelm::Adapter adapter(library, 1);
            handle = adapter.handle();
            trelm::Adapter moved = std::move(adapter);
            trelm::Adapter other(library, 0);
            other = std::move(moved);
            EXPECT_EQ(other.instance(), 1u);
            EXPECT_EQ(other.info().PhyPortNum, 2u);
        }
        EXPECT_EQ(TRELM_CloseAdapter(handle), TRELM_STATUS_FAILED)
            << "the adapter has closed its port already";
        trelm::Adapter closed(library, 1);
        closed.close();
        EXPECT_THROW(closed.close(), trelm::Error);
    }
    uint32_t count = 0;
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED) << "the library is freed";
}

TEST(CppLayer, SaysWhatFailedWhere) {
    Host host(storage_host());
    const trelm::Library library;
    const trelm::Adapter adapter(library, 0);
    host.inject({.operation = Operation::port_stats, .status = 13});
    try {
        adapter.stats(1);
        FAIL() << "nothing was thrown";
    } catch (const trelm::Error& error) {
        EXPECT_EQ(error.code(), 0x6000000Du);
        EXPECT_EQ(error.operation(), "TRELM_GetPortStats");
        EXPECT_EQ(error.instance(), 0u);
        EXPECT_EQ(error.npiv_index(), 1u);
        EXPECT_STREQ(error.what(), "TRELM_GetPortStats failed for port 0, NPIV index 1: 0x6000000D");
    }
    EXPECT_THROW(trelm::Adapter(library, 2), trelm::Error);
}

TEST(CppLayer, FindsPortIndexesWithoutAskingTheDriver) {
    hostsim::Model model = storage_host();
    hosts::port(model, 0).npiv_index = 4;
    hosts::port(model, 0).virtual_ports[1].npiv_index = 90;
    Host host(std::move(model));
    const trelm::Library library;
    const trelm::Adapter adapter(library, 0);
    host.clear_calls();
    EXPECT_EQ(adapter.port_indexes(), (std::vector<uint32_t>{1, 4, 90}));
    EXPECT_FALSE(adapter.has_port(0));
    EXPECT_EQ(host.calls().size(), 0u);
}

TEST(CppLayer, ListsTargetsAndLunsWholeWhateverTheDriverAnnounces) {
    Host host(storage_host());
    const trelm::Library library;
    const trelm::Adapter adapter(library, 0);
    const auto targets = adapter.targets(0);
    ASSERT_EQ(targets.size(), 2u);
    EXPECT_EQ(+targets[1].ScsiTgtNum, 127u);
    const auto luns = adapter.luns(0, 1);
    ASSERT_EQ(luns.size(), 20u);
    EXPECT_EQ(+luns[19].ScsiLunNum, 19u);
    EXPECT_EQ(+luns[19].Capacity, 2048u * 512);
    EXPECT_TRUE(adapter.targets(1).empty());
    host.model().adapters[0].ports[0].reported_target_count = UINT32_MAX;
    EXPECT_EQ(adapter.targets(0).size(), 2u);

    host.inject({.operation = Operation::tgt_info, .target = 127, .status = 5});
    std::vector<TRELM_TGT_INFO> found;
    EXPECT_EQ(adapter.list_targets(0, found), 0x60000005u);
    ASSERT_EQ(found.size(), 1u) << "those before the one that fails";
    EXPECT_EQ(+found[0].ScsiTgtNum, 1u);
}

TEST(CppLayer, SendsCommandsAndLeavesSenseToTheCaller) {
    Host host(storage_host());
    const trelm::Library library;
    const trelm::Adapter adapter(library, 0);
    std::array<uint8_t, 36> inquiry{};
    TRELM_SCSI_CMND command = trelm::scsi_command(1, 3, {0x12, 0, 0, 0, inquiry.size(), 0});
    adapter.send(0, command, inquiry.data(), inquiry.size());
    EXPECT_EQ(std::string(inquiry.begin() + 8, inquiry.begin() + 15), "CALVEXA");

    command = trelm::scsi_command(1, 0x4001'0002'0003, {0xFF, 0, 0, 0, 0, 0}, 0);
    EXPECT_EQ(command.ScsiLunNum, 0x20003u);
    EXPECT_EQ(command.ScsiLunNumExt, 0x4001u);
    command.ScsiLunNum = 3;
    command.ScsiLunNumExt = 0;
    adapter.send(0, command);
    EXPECT_EQ(command.Sense[2], 5) << "illegal request";
}

}  // namespace
