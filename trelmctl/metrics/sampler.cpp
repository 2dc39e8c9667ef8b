#include "sampler.h"

#include <exception>
#include <utility>

#include "adapter_probe.h"

namespace trelmctl::metrics {
namespace {

// How soon after a load a port that fails may cause another one.
constexpr std::chrono::seconds kLeastLoadInterval{10};

}  // namespace

// What one load of the library found.
struct Sampler::Load {
    Load(bool luns) : library(std::make_shared<trelm::Library>()) {
        for (uint32_t instance = 0; instance < library->port_count(); ++instance)
            probes.push_back(std::make_shared<AdapterProbe>(library, instance, luns));
        workers = std::make_unique<Workers>(probes.size());
    }

    void ask(uint64_t round, Clock::time_point deadline) {
        workers->run([probes = probes, round](std::size_t i) { probes[i]->ask(round); }, deadline);
    }

    std::shared_ptr<const trelm::Library> library;
    std::vector<std::shared_ptr<AdapterProbe>> probes;
    std::unique_ptr<Workers> workers;
};

Sampler::Sampler(SamplerSettings settings) : settings_(settings) {}
Sampler::~Sampler() = default;

bool Sampler::is_due_for_load() const {
    const auto age = Clock::now() - loaded_at_;
    return age >= settings_.reload || (!last_complete_ && age >= kLeastLoadInterval);
}

// A load may hang in a driver like everything else, and a free waits for calls that have not come back.
void Sampler::begin_load() {
    // The job has the only reference to the old load: while it lives, the library stays as it is.
    pending_ = std::make_shared<Pending>(Pending{std::move(load_)});
    loader_.begin([pending = pending_, luns = settings_.luns](std::size_t) {
        pending->load.reset();
        try {
            pending->load = std::make_unique<Load>(luns);
        } catch (const std::exception&) {
            // The next sample tries again.
        }
    });
}

void Sampler::await_load(Clock::time_point deadline) {
    if (!loader_.wait_idle(deadline)) return;
    load_ = std::move(pending_->load);
    pending_.reset();
    loaded_at_ = Clock::now();
}

void Sampler::renew() {
    if (load_ && is_due_for_load() && load_->workers->wait_idle(Clock::now())) begin_load();
}

std::vector<AdapterSample> Sampler::ask(Clock::time_point begin, Clock::time_point deadline) {
    std::vector<AdapterSample> adapters;
    load_->ask(++round_, deadline);
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
    if (!load_ && !pending_) begin_load();
    if (pending_) await_load(deadline);
    HostSample host;
    host.loaded = load_ != nullptr;
    if (host.loaded) {
        host.adapters = ask(begin, deadline);
    } else {
        for (const PortNames& ports : known_)
            host.adapters.push_back(unanswered(ports, pending_ != nullptr, Clock::now() - begin));
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

bool Sampler::is_stuck() {
    return !loader_.wait_idle(Clock::now()) || (load_ && !load_->workers->wait_idle(Clock::now()));
}

}  // namespace trelmctl::metrics
