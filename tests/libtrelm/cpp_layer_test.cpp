// cpp_layer_test.cpp - the C++ layer on the public interface: ownership, errors, and listings that hold
// whatever a driver reports.
#include "support/loaded_host.h"
#include "trelm_mgmt.hpp"

namespace {

using hostsim::Operation;

class CppLayer : public testing::Test {
  protected:
    CppLayer() {
        for (const uint32_t index : {1U, 127U}) hostsim::hosts::add_target(port(), index);
        library.emplace();
    }
    hostsim::PhysicalPort& port() { return host.model().port(0, 0); }

    hostsim::Host host{hostsim::hosts::kron_ports(2, 1)};
    std::optional<trelm::Library> library;
};

TEST_F(CppLayer, ClosesAdaptersAndFreesTheLibraryAtTheEndOfTheirScopes) {
    uint32_t count = 0;
    EXPECT_EQ(library->port_count(), 2U);
    {
        trelm::Adapter adapter(*library, 1);
        EXPECT_EQ(adapter.handle(), 2U);
        trelm::Adapter other(*library, 0);
        other = std::move(adapter);
        EXPECT_EQ(other.instance(), 1U);
        EXPECT_EQ(+other.info().PhyPortNum, 2U);
    }
    EXPECT_EQ(TRELM_CloseAdapter(2), TRELM_STATUS_FAILED) << "it is closed already";
    library.reset();
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED) << "the library is freed";
}

TEST_F(CppLayer, ThrowsErrorsWithOperationPortAndMeaning) {
    const trelm::Adapter adapter(*library, 1);
    host.inject({.operation = Operation::port_stats, .status = 13});
    try {
        adapter.stats(1);
        FAIL() << "nothing was thrown";
    } catch (const trelm::Error& error) {
        EXPECT_EQ(error.code(), 0x6000000DU);
        EXPECT_STREQ(error.what(),
                     "TRELM_GetPortStats failed for port 1, NPIV index 1: driver status 13, "
                     "device offline (0x6000000D)");
    }
    EXPECT_THROW(trelm::Adapter(*library, 2), trelm::Error);
    EXPECT_STREQ(trelm::Error(ENOENT, "TRELM_OpenAdapter", 0).what(),
                 "TRELM_OpenAdapter failed for port 0: No such file or directory (0x00000002)");
}

TEST_F(CppLayer, SendsConstDataOnlyWithCommandsThatDoNotRead) {
    hostsim::hosts::add_lun(port().targets.at(0), 4);
    const trelm::Adapter adapter(*library, 0);
    const uint8_t write[]{0x2A, 0, 0, 0, 0, 1, 0, 0, 1, 0};
    const std::vector<uint8_t> block(512, 7);
    TRELM_SCSI_CMND command = trelm::scsi_command(1, 4, write, TRELM_SCSI_DATA_OUT);
    adapter.send(0, command, block.data(), block.size());
    EXPECT_EQ(command.Sense[0], 0);
    command.Direction = TRELM_SCSI_DATA_IN;
    EXPECT_THROW(adapter.send(0, command, block.data(), block.size()), trelm::Error);
}

TEST_F(CppLayer, ListsTargetsWhateverNumberTheDriverReports) {
    port().reported_target_count = UINT32_MAX;
    EXPECT_EQ(trelm::Adapter(*library, 0).targets(0).size(), 2U);
}

TEST_F(CppLayer, ListsTheLunsBeforeOneThatFails) {
    for (const uint32_t lun : {3U, 4U}) hostsim::hosts::add_lun(port().targets.at(1), lun);
    for (const uint8_t command : {0x12, 0x25}) {
        host.inject({.operation = Operation::scsi, .opcode = command, .occurrence = 2, .status = 13});
        std::vector<TRELM_LUN_INFO> found;
        EXPECT_EQ(trelm::Adapter(*library, 0).list_luns(0, 127, found), 0x6000000DU);
        ASSERT_EQ(found.size(), 1U);
        EXPECT_EQ(found[0].ScsiLunNum, 3U);
    }
}

}  // namespace
