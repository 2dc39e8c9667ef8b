// workers.h - runs the tasks of a round on as few threads as they need. Tasks run one after the other while
// each ends quickly. While a task waits in a driver, other tasks start on other threads. A driver may keep a
// call for ever, and a call cannot be aborted, so a thread may be left behind with a task that never ends.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace trelmctl {

using Clock = std::chrono::steady_clock;

class Workers {
  public:
    // Gets the number of the task. It must own everything that it uses, because it may outlive the caller.
    using Job = std::function<void(std::size_t task)>;

    explicit Workers(std::size_t tasks);
    // Idle threads end at once, busy threads after their task. The destructor does not wait for them.
    ~Workers();
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;

    // Starts a round: runs the job for every task that is not still running from an earlier round.
    void begin(const Job& job);

    // Starts a round and waits until it is over or the deadline has passed. Tasks that have not started by
    // then are skipped.
    void run(const Job& job, Clock::time_point deadline);

    // Waits until no task runs or is queued. False if the deadline passes first.
    bool wait_idle(Clock::time_point deadline);

  private:
    class Round;

    std::shared_ptr<Round> round_;
};

}  // namespace trelmctl
