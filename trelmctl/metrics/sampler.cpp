#include "sampler.h"

#include <utility>

#include "adapter_probe.h"
#include "probed_library.h"

namespace trelmctl::metrics {
namespace {

// A port that fails causes no reload until this time after the last one.
constexpr std::chrono::seconds kLeastLoadInterval{10};

}  // namespace

struct Sampler::Load : ProbedLibrary<AdapterProbe> {
    using ProbedLibrary::ProbedLibrary;
};

Sampler::Sampler(SamplerSettings settings) : settings_(settings) {}
Sampler::~Sampler() = default;

bool Sampler::is_due_for_load() const {
    const auto age = Clock::now() - loaded_at_;
    return age >= settings_.reload || (!last_complete_ && age >= kLeastLoadInterval);
}

void Sampler::begin_load() {
    load_.begin([luns = settings_.luns] {
        return std::make_unique<Load>(std::make_shared<const trelm::Library>(), luns);
    });
}

void Sampler::renew() {
    if (load_ && is_due_for_load() && load_->workers.wait_idle(Clock::now())) begin_load();
}

std::vector<AdapterSample> Sampler::ask(Clock::time_point begin, Clock::time_point deadline) {
    std::vector<AdapterSample> adapters;
    ++round_;
    load_->ask_all([round = round_](AdapterProbe& probe) { probe.ask(round); }, deadline);
    known_.clear();
    for (const auto& probe : load_->probes) {
        const auto& ports = adapters.emplace_back(probe->take(round_, begin)).ports;
        known_.emplace_back(ports.begin(), ports.end());
    }
    return adapters;
}

HostSample Sampler::sample() {
    const auto begin = Clock::now();
    const auto deadline = begin + std::chrono::duration_cast<Clock::duration>(settings_.deadline);
    if (!load_ && !load_.is_pending()) begin_load();
    if (load_.finish(deadline)) loaded_at_ = Clock::now();
    HostSample host;
    host.loaded = static_cast<bool>(load_);
    if (host.loaded) {
        host.adapters = ask(begin, deadline);
    } else {
        for (const PortNames& ports : known_)
            host.adapters.push_back(unanswered(ports, load_.is_pending(), Clock::now() - begin));
    }
    last_complete_ = !host.adapters.empty();
    for (AdapterSample& adapter : host.adapters) {
        for (PortSample& port : adapter.ports) {
            if (port.stats) port.counting_since = history_.date(port.identity, *port.stats);
            last_complete_ = last_complete_ && port.complete();
        }
    }
    host.took = Clock::now() - begin;
    return host;
}

bool Sampler::is_stuck() { return load_.is_stuck(Clock::now()); }

}  // namespace trelmctl::metrics
