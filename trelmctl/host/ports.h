// ports.h - finds the port that the command line names. A physical port and its virtual ports are
// distinguished by NPIV indexes, which the driver assigns. The index of the physical port need not be 0.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "failure.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

// PORT or PORT/NPIV: an instance number, or the WWPN or host name ("vmhba32") of a physical or virtual port.
struct PortSelector {
    std::optional<uint32_t> instance;
    std::optional<std::array<uint8_t, 8>> wwpn;
    std::string hba_name;  // empty: not selected by name
    std::optional<uint32_t> npiv_index;
};
std::optional<PortSelector> parse_port(const std::string& text);

// Loads the library. A failure, or a host without ports, is explained for the machine at hand.
class LoadedHost {
  public:
    LoadedHost();

    const trelm::Library& library() const { return *library_; }
    uint32_t port_count() const { return port_count_; }

  private:
    std::optional<trelm::Library> library_;
    uint32_t port_count_ = 0;
};

// A physical or virtual port with the current answer of its driver.
struct PortState {
    uint32_t npiv_index = 0;
    std::optional<TRELM_VNPORT_INFO> info;
    std::optional<Failure> failure;  // why `info` is missing

    bool is_virtual() const { return info && info->PortType == TRELM_PORTTYPE_NPIV; }
};

PortState ask_port(const trelm::Adapter& adapter, uint32_t npiv_index);

// The physical port. If no port of the adapter reports that it is physical, the first one without an answer
// is taken for it.
PortState ask_physical(const trelm::Adapter& adapter);

// The physical port first, then the virtual ones by their index.
std::vector<PortState> ask_ports(const trelm::Adapter& adapter);

// Opens a physical port and reads its information of load time.
trelm::Adapter open_adapter(const LoadedHost& host, uint32_t instance);
TRELM_FCOE_INFO ask_adapter_info(const trelm::Adapter& adapter);

// Opens the port that a selector names.
struct SelectedPort {
    trelm::Adapter adapter;
    uint32_t npiv_index;
};
SelectedPort select_port(const LoadedHost& host, const PortSelector& selector);

}  // namespace trelmctl
