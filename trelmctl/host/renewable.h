// renewable.h - what a load of the library found, and its replacement by another load. Loads and frees may hang in a
// driver like every other call, so a thread makes them that may be left behind.
#pragma once

#include <exception>
#include <memory>
#include <utility>

#include "workers.h"

namespace trelmctl {

template <typename Load>
class Renewable {
  public:
    // Begins to replace the load by the one that `make` returns; none if it throws. The thread has the only reference
    // to the old load: while that lives, the library stays as it is.
    template <typename Make>
    void begin(const Make& make) {
        pending_ = std::make_shared<Pending>(Pending{std::move(load_)});
        loader_.begin([pending = pending_, make](std::size_t) {
            pending->load.reset();
            try {
                pending->load = make();
            } catch (const std::exception&) {
                // Whoever needs it begins again.
            }
        });
    }

    // Takes the result if there is one by then. False while there is none.
    bool finish(Clock::time_point deadline) {
        if (!pending_ || !loader_.wait_idle(deadline)) return false;
        load_ = std::move(pending_->load);
        pending_.reset();
        return true;
    }

    bool is_pending() const { return pending_ != nullptr; }
    bool is_idle(Clock::time_point deadline) { return loader_.wait_idle(deadline); }

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
