// scrape_cost.cpp - the cost of a scrape compared with the bare library calls that it needs, on the simulated
// host that it runs on. Both alternate, so that other load of the machine affects both alike. The median of
// each counts.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <vector>

#include "catalogue.h"
#include "sampler.h"

namespace {

using namespace trelmctl::metrics;
using trelmctl::Clock;

double milliseconds(const std::function<void()>& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

double middle(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

// The calls of one port: its state, its counters, its targets.
void ask(uint32_t handle, uint32_t npiv_index) {
    TRELM_VNPORT_INFO info{};
    TRELM_PORT_STATS stats{};
    std::array<TRELM_TGT_INFO, TRELM_MAX_TARGETS> targets{};
    TRELM_TGT_INFO* array = targets.data();
    uint32_t count = targets.size();
    TRELM_GetVNPortInfo(handle, npiv_index, &info);
    TRELM_GetPortStats(handle, npiv_index, &stats);
    TRELM_GetTgtInfo(handle, npiv_index, &count, &array);
}

}  // namespace

int main() {
    constexpr int kRounds = 21;
    Sampler sampler({.deadline = std::chrono::minutes(1), .reload = std::chrono::hours(1)});
    HostSample host = sampler.sample();
    std::vector<uint32_t> handles(host.adapters.size());
    for (uint32_t instance = 0; instance < handles.size(); ++instance)
        TRELM_OpenAdapter(instance, &handles[instance]);

    std::vector<double> bare, sampled, written;
    std::string text;
    for (int round = 0; round < kRounds; ++round) {
        bare.push_back(milliseconds([&] {
            for (std::size_t i = 0; i < handles.size(); ++i) {
                for (const PortSample& port : host.adapters[i].ports) ask(handles[i], port.npiv_index);
            }
        }));
        sampled.push_back(milliseconds([&] { host = sampler.sample(); }));
        written.push_back(milliseconds([&] { text = render(host, Format::openmetrics); }));
    }
    fmt::print("physical ports {}, samples {}, text {:.1f} MB\n", handles.size(),
               std::count(text.begin(), text.end(), '\n'), static_cast<double>(text.size()) / 1e6);
    fmt::print("bare calls {:.1f} ms, sampling {:.1f} ms, writing {:.1f} ms; ratio {:.2f}\n", middle(bare),
               middle(sampled), middle(written), (middle(sampled) + middle(written)) / middle(bare));
}
