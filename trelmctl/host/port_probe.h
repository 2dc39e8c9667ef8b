// port_probe.h - asks one physical port and its virtual ports on one thread and keeps the answer for another, so that
// only the first waits for the driver.
#pragma once

#include <memory>
#include <mutex>

#include "host_look.h"
#include "port_filter.h"
#include "workers.h"

namespace trelmctl {

// What is asked of ports besides their state.
struct Wishes {
    PortFilter filter;  // ports that it does not admit are asked for nothing more
    bool counters;
    bool targets;            // of all ports,
    std::string targets_of;  // or of the port with this key; empty: of none
};

class PortProbe {
  public:
    // Opens the port, where that succeeds.
    PortProbe(std::shared_ptr<const trelm::Library> library, uint32_t instance);

    // All zero where the port does not tell it.
    std::array<uint8_t, 8> wwpn() const;
    void set_key(std::string key) { key_ = std::move(key); }
    const std::string& key() const { return key_; }
    uint32_t instance() const { return instance_; }

    // Asks the driver, which may take any time. On one thread at a time.
    void ask(const Wishes& wishes);

    // From any thread: the answer that came since the last one was taken.
    AdapterLook take();

  private:
    void open();
    AdapterLook look_at(const Wishes& wishes);
    void look_at_port(const Wishes& wishes, PortLook& port) const;
    TargetsLook look_at_targets(uint32_t npiv_index) const;

    const std::shared_ptr<const trelm::Library> library_;
    const uint32_t instance_;
    std::string key_;  // not changed after the first question

    // Of the asking thread alone.
    std::optional<trelm::Adapter> adapter_;

    std::mutex mutex_;  // guards the rest
    std::optional<TRELM_FCOE_INFO> info_;
    std::optional<AdapterLook> answer_;
    std::optional<Clock::time_point> asked_since_;
    bool admitted_ = false;
};

}  // namespace trelmctl
