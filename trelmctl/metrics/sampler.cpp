#include "sampler.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <functional>
#include <utility>

#include "adapter_probe.h"

namespace trelmctl::metrics {
namespace {

// How soon after a load a port that fails may cause another one.
constexpr std::chrono::seconds kLeastLoadInterval{10};

// Ports whose counters are remembered; no host has as many.
constexpr std::size_t kMostRemembered = 65536;

double seconds_since_epoch() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Whether a counter went back, which drivers' counters do only when they are reset, all at once.
bool was_reset(const TRELM_PORT_STATS& before, const TRELM_PORT_STATS& now) {
    constexpr std::size_t first = offsetof(TRELM_PORT_STATS, RxFCoEFrames);
    constexpr std::size_t count = (sizeof before - first) / sizeof(uint64_t);
    std::array<uint64_t, count> then{};
    std::array<uint64_t, count> current{};
    std::memcpy(then.data(), reinterpret_cast<const char*>(&before) + first, sizeof then);
    std::memcpy(current.data(), reinterpret_cast<const char*>(&now) + first, sizeof current);
    return !std::equal(then.begin(), then.end(), current.begin(), std::less_equal<>());
}

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
    if (!load_) return true;
    const auto age = Clock::now() - loaded_at_;
    return age >= settings_.reload || (!last_complete_ && age >= kLeastLoadInterval);
}

// A load may hang in a driver like everything else, and a free waits for calls that have not come back.
void Sampler::load(Clock::time_point deadline) {
    if (!pending_ && is_due_for_load() && (!load_ || load_->workers->wait_idle(Clock::now()))) {
        // The job has the only reference to the old load: while it lives, the library stays as it is.
        pending_ = std::make_shared<Pending>(Pending{std::move(load_)});
        loader_.run(
            [pending = pending_, luns = settings_.luns](std::size_t) {
                pending->load.reset();
                try {
                    pending->load = std::make_unique<Load>(luns);
                } catch (const std::exception&) {
                    // The next sample tries again.
                }
            },
            deadline);
    }
    if (!pending_ || !loader_.wait_idle(deadline)) return;
    load_ = std::move(pending_->load);
    pending_.reset();
    loaded_at_ = Clock::now();
}

HostSample Sampler::sample() {
    const auto begin = Clock::now();
    const auto deadline = begin + std::chrono::duration_cast<Clock::duration>(settings_.deadline);
    HostSample host;
    load(deadline);
    if (load_) {
        host.loaded = true;
        load_->ask(++round_, deadline);
        for (const auto& probe : load_->probes) host.adapters.push_back(probe->take(round_, begin));
    }
    last_complete_ = !host.adapters.empty();
    for (AdapterSample& adapter : host.adapters) {
        for (PortSample& port : adapter.ports) {
            date_counters(port);
            last_complete_ = last_complete_ && port.complete();
        }
    }
    host.took = Clock::now() - begin;
    return host;
}

bool Sampler::is_stuck() {
    return !loader_.wait_idle(Clock::now()) || (load_ && !load_->workers->wait_idle(Clock::now()));
}

// Counters that were reset count since some moment after they were last seen, so they are dated to that.
void Sampler::date_counters(PortSample& port) {
    if (!port.stats) return;
    if (seen_.size() > kMostRemembered) seen_.clear();
    const auto [entry, is_new] = seen_.try_emplace(port.identity);
    Seen& seen = entry->second;
    if (!is_new && was_reset(seen.stats, *port.stats)) seen.counting_since = seen.when;
    seen.stats = *port.stats;
    seen.when = seconds_since_epoch();
    port.counting_since = seen.counting_since;
}

}  // namespace trelmctl::metrics
