#include "workers.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace trelmctl::metrics {

struct Workers::Shared {
    struct Worker {
        Job job;
        bool busy = false;
    };

    std::mutex mutex;
    std::condition_variable given;
    std::condition_variable done;
    std::vector<Worker> workers;
    bool ending = false;
};

Workers::Workers(std::size_t count) : shared_(std::make_shared<Shared>()) {
    shared_->workers.resize(count);
    for (std::size_t worker = 0; worker < count; ++worker) std::thread(work, shared_, worker).detach();
}

Workers::~Workers() {
    const std::lock_guard lock(shared_->mutex);
    shared_->ending = true;
    shared_->given.notify_all();
}

void Workers::work(const std::shared_ptr<Shared>& shared, std::size_t number) {
    std::unique_lock lock(shared->mutex);
    Shared::Worker& self = shared->workers[number];
    for (;;) {
        shared->given.wait(lock, [&] { return shared->ending || self.busy; });
        if (!self.busy) return;
        {
            const Job job = std::exchange(self.job, nullptr);
            lock.unlock();
            job(number);
        }
        lock.lock();
        self.busy = false;
        shared->done.notify_all();
    }
}

void Workers::run(const Job& job, Clock::time_point deadline) {
    std::unique_lock lock(shared_->mutex);
    std::vector<const Shared::Worker*> given;
    for (Shared::Worker& worker : shared_->workers) {
        if (std::exchange(worker.busy, true)) continue;
        worker.job = job;
        given.push_back(&worker);
    }
    shared_->given.notify_all();
    shared_->done.wait_until(lock, deadline, [&] {
        return std::none_of(given.begin(), given.end(), [](const auto* worker) { return worker->busy; });
    });
}

bool Workers::wait_idle(Clock::time_point deadline) {
    std::unique_lock lock(shared_->mutex);
    return shared_->done.wait_until(lock, deadline, [&] {
        const auto& workers = shared_->workers;
        return std::none_of(workers.begin(), workers.end(), [](const auto& worker) { return worker.busy; });
    });
}

}  // namespace trelmctl::metrics
