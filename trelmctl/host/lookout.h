// lookout.h - looks at the host on a separate thread, so that the caller can respond to keys and signals.
#pragma once

#include <chrono>
#include <future>
#include <optional>

#include "fresh_host.h"

namespace trelmctl {

class Lookout {
  public:
    explicit Lookout(double rescan_seconds) : host_(rescan_seconds) {}

    // Starts a look, unless one is in progress.
    void start(const Wishes& wishes);
    bool is_under_way() const { return look_.valid(); }

    // The result of the look, or nothing if it is not complete within `patience`. Until a look has found a
    // port, throws CommandFailed if the library cannot be loaded or the host has no port.
    std::optional<HostLook> take(std::chrono::milliseconds patience);

    // Whether a call has not returned. Such a call cannot be aborted, and the library cannot be freed during
    // it, so the only way out is to end the process.
    bool is_stuck();

  private:
    FreshHost host_;
    std::future<HostLook> look_;
    bool was_loaded_ = false;
};

}  // namespace trelmctl
