#include "workers.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace trelmctl {
namespace {

// A task that runs longer than this is taken to wait in a driver.
constexpr std::chrono::milliseconds kPatience{10};

// If this many tasks hang, no other task starts.
constexpr std::size_t kMostThreads = 256;

}  // namespace

// The state that the threads share. It lives as long as any of them.
class Workers::Round : public std::enable_shared_from_this<Workers::Round> {
  public:
    explicit Round(std::size_t tasks) : began_(tasks) {}

    void end();
    void begin(const Job& job);
    void wait(Clock::time_point deadline);
    bool wait_idle(Clock::time_point deadline);

  private:
    using Began = std::optional<Clock::time_point>;

    void work();
    void start_threads();
    void replace_waiting_tasks();
    std::size_t running() const;
    bool is_over() const;
    bool is_running(std::size_t task) const { return began_[task].has_value(); }

    std::mutex mutex_;
    std::condition_variable given_;
    std::condition_variable done_;
    std::vector<Began> began_;  // by task: its start time while it runs
    std::deque<std::size_t> queue_;
    std::vector<std::size_t> tasks_;  // of this round
    Job job_;
    std::size_t threads_ = 0;
    std::size_t allowed_ = 0;  // tasks that may run at the same time
    bool ending_ = false;
};

std::size_t Workers::Round::running() const {
    return static_cast<std::size_t>(
        std::count_if(began_.begin(), began_.end(), [](const Began& began) { return began.has_value(); }));
}

void Workers::Round::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        given_.wait(lock, [this] { return ending_ || (!queue_.empty() && running() < allowed_); });
        if (ending_) return;
        const std::size_t task = queue_.front();
        queue_.pop_front();
        began_[task] = Clock::now();
        {
            const Job job = job_;
            lock.unlock();
            job(task);
        }
        lock.lock();
        began_[task].reset();
        done_.notify_all();
    }
}

// If no further thread can be created, the existing ones run all tasks.
void Workers::Round::start_threads() try {
    for (; threads_ < std::min({allowed_, began_.size(), kMostThreads}); ++threads_)
        std::thread([self = shared_from_this()] { self->work(); }).detach();
    given_.notify_all();
} catch (const std::system_error&) {
    given_.notify_all();
}

void Workers::Round::replace_waiting_tasks() {
    const auto long_ago = Clock::now() - kPatience;
    const auto waits = [&](const Began& began) { return began && *began <= long_ago; };
    const auto waiting = static_cast<std::size_t>(std::count_if(began_.begin(), began_.end(), waits));
    allowed_ = std::max(allowed_, 2 * waiting);
}

void Workers::Round::begin(const Job& job) {
    const std::lock_guard lock(mutex_);
    job_ = job;
    queue_.clear();
    for (std::size_t task = 0; task < began_.size(); ++task) {
        if (!is_running(task)) queue_.push_back(task);
    }
    tasks_.assign(queue_.begin(), queue_.end());
    allowed_ = running() + 1;
    start_threads();
}

bool Workers::Round::is_over() const {
    return queue_.empty() &&
           std::none_of(tasks_.begin(), tasks_.end(), [this](auto task) { return is_running(task); });
}

void Workers::Round::wait(Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    for (auto now = Clock::now(); !is_over() && now < deadline; now = Clock::now()) {
        done_.wait_until(lock, std::min(deadline, now + kPatience), [this] { return is_over(); });
        replace_waiting_tasks();
        start_threads();
    }
    queue_.clear();
    job_ = nullptr;
}

bool Workers::Round::wait_idle(Clock::time_point deadline) {
    std::unique_lock lock(mutex_);
    return done_.wait_until(lock, deadline, [this] { return queue_.empty() && running() == 0; });
}

void Workers::Round::end() {
    const std::lock_guard lock(mutex_);
    ending_ = true;
    given_.notify_all();
}

Workers::Workers(std::size_t tasks) : round_(std::make_shared<Round>(tasks)) {}
Workers::~Workers() { round_->end(); }

void Workers::begin(const Job& job) { round_->begin(job); }

void Workers::run(const Job& job, Clock::time_point deadline) {
    round_->begin(job);
    round_->wait(deadline);
}

bool Workers::wait_idle(Clock::time_point deadline) { return round_->wait_idle(deadline); }

}  // namespace trelmctl
