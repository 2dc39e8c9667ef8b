// cpp_layer_test.cpp - the C++ layer on the public interface: what it owns and gives back, what it makes of
// failures, and listings that hold whatever a driver announces.
#include "support/loaded_host.h"
#include "trelm_mgmt.hpp"

namespace {

TEST(CppLayer, GivesBackWhatItTookAndSaysWhatFailedWhere) {
    hostsim::Host host(hostsim::hosts::kron_ports(2, 1));
    for (const uint32_t index : {1U, 127U}) hostsim::hosts::add_target(host.model().port(0, 0), index);
    uint32_t count = 0;
    {
        const trelm::Library library;
        EXPECT_EQ(library.port_count(), 2u);
        {
            trelm::Adapter adapter(library, 1);
            EXPECT_EQ(adapter.handle(), 2u);
            trelm::Adapter other(library, 0);
            other = std::move(adapter);
            EXPECT_EQ(other.instance(), 1u);
            EXPECT_EQ(+other.info().PhyPortNum, 2u);
            host.inject({.operation = hostsim::Operation::port_stats, .status = 13});
            try {
                other.stats(1);
                FAIL() << "nothing was thrown";
            } catch (const trelm::Error& error) {
                EXPECT_EQ(error.code(), 0x6000000Du);
                EXPECT_STREQ(error.what(), "TRELM_GetPortStats failed for port 1, NPIV index 1: 0x6000000D");
            }
        }
        EXPECT_EQ(TRELM_CloseAdapter(2), TRELM_STATUS_FAILED) << "it is closed already";
        EXPECT_THROW(trelm::Adapter(library, 2), trelm::Error);
        host.model().port(0, 0).reported_target_count = UINT32_MAX;
        EXPECT_EQ(trelm::Adapter(library, 0).targets(0).size(), 2u);
    }
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED) << "the library is freed";
}

}  // namespace
