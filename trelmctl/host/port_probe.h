// port_probe.h - asks one physical port and its virtual ports on one thread and keeps the answer for another
// thread. Only the first thread waits for the driver.
#pragma once

#include <memory>
#include <mutex>

#include "host_look.h"
#include "port_filter.h"
#include "workers.h"

namespace trelmctl {

// What to ask ports for in addition to their state.
struct Wishes {
    PortFilter filter;  // ports that it does not admit are asked only for their state
    bool counters;
    bool targets;            // of all ports,
    std::string targets_of;  // or of the port with this key; empty: of none
};

class PortProbe {
  public:
    // Tries to open the port. If that fails, ask() tries again.
    PortProbe(std::shared_ptr<const trelm::Library> library, uint32_t instance);

    // All zeros if the port does not report it.
    std::array<uint8_t, 8> wwpn() const;
    void set_key(std::string key) { key_ = std::move(key); }
    const std::string& key() const { return key_; }
    uint32_t instance() const { return instance_; }

    // Asks the driver. This may take any length of time. Only one thread at a time may call it.
    void ask(const Wishes& wishes);

    // The answer that arrived after the last one was taken. Any thread may call it.
    AdapterLook take();

  private:
    void open();
    AdapterLook look_at(const Wishes& wishes);
    void look_at_port(const Wishes& wishes, PortLook& port) const;
    TargetsLook look_at_targets(uint32_t npiv_index) const;

    const std::shared_ptr<const trelm::Library> library_;
    const uint32_t instance_;
    std::string key_;  // does not change after the first ask()

    // Used only by the thread that calls ask().
    std::optional<trelm::Adapter> adapter_;

    std::mutex mutex_;  // guards the rest
    std::optional<TRELM_FCOE_INFO> info_;
    std::optional<AdapterLook> answer_;
    std::optional<Clock::time_point> asked_since_;
    bool admitted_ = false;
};

}  // namespace trelmctl
