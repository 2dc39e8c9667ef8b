// shared_sampling.h - one sampling at a time for all requests. A request that arrives during a sampling gets
// its result. The text is written once for each form that was requested.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "page.h"
#include "sampler.h"

namespace trelmctl::metrics {

// The forms in which a sample can be written.
enum class Form { openmetrics, prometheus, page };
inline constexpr std::size_t kForms = 3;

using Text = std::shared_ptr<const std::string>;

class SharedSampling {
  public:
    // The text is null if there was not enough memory for it.
    using Deliver = std::function<void(Text text)>;

    SharedSampling(const SamplerSettings& settings, Draw draw);
    ~SharedSampling();
    SharedSampling(const SharedSampling&) = delete;
    SharedSampling& operator=(const SharedSampling&) = delete;

    // Calls `deliver` on another thread, after at most two of the sampler's deadlines. Returns false, and
    // does not call it, if the sampling has been stopped or memory is short.
    bool request(Form form, Deliver deliver);

    // Only after stop(): whether a call into a driver has not returned.
    bool is_stuck() { return sampler_.is_stuck(); }

    // Returns when all requests have been answered.
    void stop();

  private:
    struct Waiting {
        Form form;
        Deliver deliver;
    };

    void work();
    void deliver(const HostSample& host, const std::vector<Waiting>& served) const;

    const Draw draw_;
    Sampler sampler_;
    std::mutex mutex_;
    std::condition_variable asked_;
    bool ending_ = false;
    std::vector<Waiting> waiting_;
    std::thread thread_;
};

}  // namespace trelmctl::metrics
