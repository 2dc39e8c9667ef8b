// workers.h - carries out the tasks of a round on as few threads as they need. A task that computes leaves no room
// for a second one, so tasks run one after the other while each ends soon. A task that waits in a driver gets company:
// others start beside it. A driver may keep a call for ever, and nothing can take it back, so a thread may be left
// behind with a task that never ends.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace trelmctl {

using Clock = std::chrono::steady_clock;

class Workers {
  public:
    // Given the number of the task. Must own what it uses, as it may outlive whoever gave it.
    using Job = std::function<void(std::size_t task)>;

    explicit Workers(std::size_t tasks);
    // Idle threads end, and busy ones after their task; nobody waits for them.
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // Begins a round: gives the job to every task that does not run since an earlier one.
    void begin(const Job& job);

    // Begins a round, and waits until it is over or the deadline has passed. Tasks that have not begun by then are
    // left out.
    void run(const Job& job, Clock::time_point deadline);

    // Whether no task runs any more, or is about to, by then.
    bool wait_idle(Clock::time_point deadline);

  private:
    class Round;

    std::shared_ptr<Round> round_;
};

}  // namespace trelmctl
