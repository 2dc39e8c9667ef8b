// cpp_layer_test.cpp - the C++ layer on the public interface: what it owns and gives back, what it makes of
// failures, and listings that hold whatever a driver announces.
#include <gtest/gtest.h>

#include "support/loaded_host.h"
#include "trelm_mgmt.hpp"

namespace {

using hostsim::Operation;
namespace hosts = hostsim::hosts;

hostsim::Model storage_host() {
    hostsim::Model model = hosts::kron_ports(2, 1);
    hosts::add_target(model.port(0, 0), 1, 2);
    hosts::add_target(model.port(0, 0), 127, 2);
    return model;
}

TEST(CppLayer, GivesBackWhatItTookAndSaysWhatFailedWhere) {
    hostsim::Host host(storage_host());
    uint32_t count = 0;
    {
        const trelm::Library library;
        EXPECT_EQ(library.port_count(), 2u);
        uint32_t handle = 0;
        {
            trelm::Adapter adapter(library, 1);
            handle = adapter.handle();
            trelm::Adapter other(library, 0);
            other = std::move(adapter);
            EXPECT_EQ(other.instance(), 1u);
            EXPECT_EQ(+other.info().PhyPortNum, 2u);
            host.inject({.operation = Operation::port_stats, .status = 13});
            try {
                other.stats(1);
                FAIL() << "nothing was thrown";
            } catch (const trelm::Error& error) {
                EXPECT_EQ(error.code(), 0x6000000Du);
                EXPECT_STREQ(error.what(), "TRELM_GetPortStats failed for port 1, NPIV index 1: 0x6000000D");
            }
        }
        EXPECT_EQ(TRELM_CloseAdapter(handle), TRELM_STATUS_FAILED) << "it is closed already";
        EXPECT_THROW(trelm::Adapter(library, 2), trelm::Error);
    }
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED) << "the library is freed";
}

TEST(CppLayer, ListsWholeWhateverTheDriverAnnounces) {
    hostsim::Host host(storage_host());
    const trelm::Library library;
    const trelm::Adapter adapter(library, 0);
    host.model().port(0, 0).reported_target_count = UINT32_MAX;
    EXPECT_EQ(adapter.targets(0).size(), 2u);
}

}  // namespace
