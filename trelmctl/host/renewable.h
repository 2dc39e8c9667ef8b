// renewable.h - the result of a load of the library, and its replacement by that of a later load. Loads and
// frees may hang in a driver like any other call, so a separate thread makes them, and that thread may be
// left behind. A load has `workers`, which make the calls that follow it.
#pragma once

#include <exception>
#include <memory>
#include <utility>

#include "workers.h"

namespace trelmctl {

template <typename Load>
class Renewable {
  public:
    // Starts to replace the load by the one that `make` returns; there is none if it throws. The thread holds
    // the only reference to the old load and frees it first: while it exists, the library cannot be loaded
    // again.
    template <typename Make>
    void begin(const Make& make) {
        pending_ = std::make_shared<Pending>(Pending{std::move(load_)});
        loader_.begin([pending = pending_, make](std::size_t) {
            pending->load.reset();
            try {
                pending->load = make();
            } catch (const std::exception&) {
                // There is no load. The owner may start another one.
            }
        });
    }

    // Takes the result of a load that has ended by the deadline. False if there is none.
    bool finish(Clock::time_point deadline) {
        if (!pending_ || !loader_.wait_idle(deadline)) return false;
        load_ = std::move(pending_->load);
        pending_.reset();
        return true;
    }

    bool is_pending() const { return pending_ != nullptr; }

    // Whether a load, or a call of its workers, has not returned by the deadline.
    bool is_stuck(Clock::time_point deadline) {
        return !loader_.wait_idle(deadline) || (load_ && !load_->workers.wait_idle(deadline));
    }

    explicit operator bool() const { return load_ != nullptr; }
    Load* operator->() const { return load_.get(); }

  private:
    struct Pending {
        std::unique_ptr<Load> load;
    };

    Workers loader_{1};
    std::shared_ptr<Pending> pending_;
    std::unique_ptr<Load> load_;
};

}  // namespace trelmctl
