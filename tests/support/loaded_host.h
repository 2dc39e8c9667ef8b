// loaded_host.h - ready-made hosts for tests of the library, and a fixture that has the library loaded on
// one.
#pragma once

#include <gtest/gtest.h>

#include "host.h"
#include "host_builders.h"
#include "trelm_mgmt.h"

namespace trelm::test {

// A host for one driver: a dual-port adapter with two virtual ports on each port. Every port has two FCFs,
// and targets 0 and 3 with two LUNs each.
inline hostsim::Model two_port_host(hostsim::DriverKind kind) {
    hostsim::Model model = hostsim::hosts::ports(kind, 2, 2);
    const auto equip = [](hostsim::Port& port) {
        for (int fcf = 0; fcf < 2; ++fcf) hostsim::hosts::add_fcf(port);
        for (const uint32_t target : {0U, 3U}) hostsim::hosts::add_target(port, target, 2);
    };
    for (hostsim::PhysicalPort& port : model.adapters.at(0).ports) {
        equip(port);
        for (hostsim::Port& virtual_port : port.virtual_ports) equip(virtual_port);
    }
    return model;
}

// Loads the library on a host, and frees it at the end.
class LoadedLibrary {
  public:
    explicit LoadedLibrary(hostsim::Model model) : host(std::move(model)) {
        EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    }
    ~LoadedLibrary() { EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK); }

    hostsim::Host host;
};

inline std::string driver_name(const ::testing::TestParamInfo<hostsim::DriverKind>& info) {
    return std::string(hostsim::kDriverKindNames.at(static_cast<size_t>(info.param)));
}

// Tests that run on each driver.
class OnEachDriver : public ::testing::TestWithParam<hostsim::DriverKind> {
  protected:
    explicit OnEachDriver(hostsim::Model model) : library(std::move(model)) {}
    OnEachDriver() : OnEachDriver(two_port_host(GetParam())) {}

    LoadedLibrary library;
    hostsim::Host& host = library.host;
};

#define TRELM_ON_EACH_DRIVER(fixture)                                                                        \
    INSTANTIATE_TEST_SUITE_P(                                                                                \
        , fixture,                                                                                           \
        ::testing::Values(hostsim::DriverKind::kron, hostsim::DriverKind::pyx, hostsim::DriverKind::legacy), \
        trelm::test::driver_name)

}  // namespace trelm::test
