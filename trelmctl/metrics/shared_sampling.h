// shared_sampling.h - one sampling at a time for all who ask: whoever asks while one is under way gets its
// result, and the text of it is written once for each form that is wanted.
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

// What a sample is written as.
enum class Form { openmetrics, prometheus, page };
inline constexpr std::size_t kForms = 3;

using Text = std::shared_ptr<const std::string>;

class SharedSampling {
  public:
    // Null: the memory for the text is missing.
    using Deliver = std::function<void(Text text)>;

    SharedSampling(const SamplerSettings& settings, Draw draw);
    ~SharedSampling();
    SharedSampling(const SharedSampling&) = delete;
    SharedSampling& operator=(const SharedSampling&) = delete;

    // Calls `deliver` on another thread, after two of the sampler's deadlines at the latest. Returns false where it
    // will not, as all has ended.
    bool request(Form form, Deliver deliver);

    // After the end of the last sampling: whether some call into a driver has not come back.
    bool is_stuck() { return sampler_.is_stuck(); }

    // Returns when all who asked have their text.
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
