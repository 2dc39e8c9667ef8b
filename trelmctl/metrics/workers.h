// workers.h - threads that carry out one job each per round and may be left behind with a job that never ends:
// a driver may keep a call for ever, and nothing can take it back.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace trelmctl::metrics {

using Clock = std::chrono::steady_clock;

class Workers {
  public:
    // Given the number of the worker. Must own what it uses, as it may outlive whoever gave it.
    using Job = std::function<void(std::size_t worker)>;

    explicit Workers(std::size_t count);
    // Idle threads end, and busy ones after their job; they are not waited for.
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // Gives the job to every idle worker and waits until those have done it or the deadline has passed.
    void run(const Job& job, Clock::time_point deadline);

    // Whether every worker is idle by then.
    bool wait_idle(Clock::time_point deadline);

  private:
    struct Shared;
    static void work(const std::shared_ptr<Shared>& shared, std::size_t worker);

    std::shared_ptr<Shared> shared_;
};

}  // namespace trelmctl::metrics
