#include "shared_sampling.h"

#include <array>
#include <new>
#include <utility>

#include "catalogue.h"

namespace trelmctl::metrics {
namespace {

Text written(const HostSample& host, Form form, Draw draw) try {
    if (form == Form::page) return std::make_shared<const std::string>(render_page(host, draw));
    const Format format = form == Form::openmetrics ? Format::openmetrics : Format::prometheus;
    return std::make_shared<const std::string>(render(host, format));
} catch (const std::bad_alloc&) {
    return nullptr;
}

}  // namespace

SharedSampling::SharedSampling(const SamplerSettings& settings, Draw draw)
    : draw_(draw), sampler_(settings), thread_([this] { work(); }) {}

SharedSampling::~SharedSampling() { stop(); }

bool SharedSampling::request(Form form, Deliver deliver) {
    const std::lock_guard lock(mutex_);
    if (ending_) return false;
    try {
        waiting_.push_back({form, std::move(deliver)});
    } catch (const std::bad_alloc&) {
        return false;
    }
    asked_.notify_all();
    return true;
}

void SharedSampling::stop() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        asked_.notify_all();
    }
    if (thread_.joinable()) thread_.join();
}

void SharedSampling::work() {
    std::unique_lock lock(mutex_);
    for (;;) {
        asked_.wait(lock, [this] { return ending_ || !waiting_.empty(); });
        if (waiting_.empty()) return;
        lock.unlock();
        const HostSample host = sampler_.sample();
        lock.lock();
        const std::vector<Waiting> served = std::exchange(waiting_, {});
        lock.unlock();
        deliver(host, served);
        sampler_.renew();
        lock.lock();
    }
}

void SharedSampling::deliver(const HostSample& host, const std::vector<Waiting>& served) const {
    std::array<Text, kForms> texts;
    for (const Waiting& one : served) {
        Text& text = texts[static_cast<std::size_t>(one.form)];
        if (!text) text = written(host, one.form, draw_);
        one.deliver(text);
    }
}

}  // namespace trelmctl::metrics
