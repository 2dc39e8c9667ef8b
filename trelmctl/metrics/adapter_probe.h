// adapter_probe.h - asks one physical port and its virtual ports for everything that the metrics need. Only
// one thread at a time may call ask(); any thread may take the last answer.
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

// The sample of ports that did not answer, because they were late or the library could not be loaded.
AdapterSample unanswered(const PortNames& ports, bool late, std::chrono::duration<double> took);

class AdapterProbe {
  public:
    AdapterProbe(std::shared_ptr<const trelm::Library> library, uint32_t instance, bool luns);

    // Asks the drivers. This may take any length of time.
    void ask(uint64_t round);

    // The answer of this round, which began at `round_began`. If there is none yet: the known ports, marked
    // late.
    AdapterSample take(uint64_t round, Clock::time_point round_began);

  private:
    // A port with the driver's number for it. Its type may not be known yet.
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

    // Used only by the thread that calls ask().
    std::optional<trelm::Adapter> adapter_;
    std::optional<TRELM_FCOE_INFO> info_;
    std::vector<KnownPort> ports_;

    std::mutex mutex_;  // guards the rest
    uint64_t answered_round_ = 0;
    AdapterSample answer_;
    PortNames names_;  // used while there is no answer
    std::optional<Clock::time_point> asked_since_;
};

}  // namespace trelmctl::metrics
