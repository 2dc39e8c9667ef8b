// adapter_probe.h - asks one physical port and its virtual ports for all that the metrics need. A probe is asked
// on one thread at a time; its last answer may be taken from any.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "samples.h"
#include "trelm_mgmt.hpp"

namespace trelmctl::metrics {

using Clock = std::chrono::steady_clock;

// Of ports that did not answer, as they were late or as the library could not be loaded.
AdapterSample unanswered(const PortNames& ports, bool late, std::chrono::duration<double> took);

class AdapterProbe {
  public:
    AdapterProbe(std::shared_ptr<const trelm::Library> library, uint32_t instance, bool luns);

    // Asks the drivers, which may take any time.
    void ask(uint64_t round);

    // What was found in this round, which began then; where the answer has not come yet, the ports that are known,
    // marked late.
    AdapterSample take(uint64_t round, Clock::time_point round_began);

  private:
    // A port as the driver numbers it. What kind it is may not be known yet.
    struct KnownPort {
        uint32_t npiv_index = 0;
        std::optional<uint32_t> type;
    };

    void open();
    AdapterSample ask_adapter();
    void ask_port(uint32_t npiv_index, PortSample& port) const;
    std::size_t physical_port() const;
    PortName name(uint32_t npiv_index, bool is_virtual) const;

    const std::shared_ptr<const trelm::Library> library_;
    const uint32_t instance_;
    const bool luns_;

    // Of the asking thread alone.
    std::optional<trelm::Adapter> adapter_;
    std::optional<TRELM_FCOE_INFO> info_;
    std::vector<KnownPort> ports_;

    std::mutex mutex_;  // guards the rest
    uint64_t answered_round_ = 0;
    AdapterSample answer_;
    PortNames names_;  // for want of an answer
    std::optional<Clock::time_point> asked_since_;
};

}  // namespace trelmctl::metrics
