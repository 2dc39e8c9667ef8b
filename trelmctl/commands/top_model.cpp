#include "top_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>

#include "terminal.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

constexpr std::size_t kMostHistory = 3000;

}  // namespace

double PortTraffic::errors() const {
    double sum = 0;
    for (const Counter& counter : kCounters) {
        const auto rate = rates.find(counter.key);
        if (std::string_view(counter.group) == "errors" && rate != rates.end()) sum += rate->second;
    }
    return sum;
}

double PortTraffic::bytes() const { return history.empty() ? 0 : history.back(); }

void TopModel::sample_port(const trelm::Adapter& adapter, const PortState& port, PortTraffic& traffic) {
    traffic.instance = adapter.instance();
    traffic.npiv_index = port.npiv_index;
    traffic.rates.clear();
    traffic.trouble.clear();
    if (port.info) {
        traffic.state = port_state_words(port.info->PortState);
        traffic.hba_name = field_text(port.info->HbaName);
    } else {
        traffic.state = "failed";
        traffic.trouble = port.failure->meaning;
    }
    double bytes = 0;
    try {
        const CounterSample now = sample_counters(adapter, port.npiv_index);
        if (traffic.last) {
            const CounterInterval interval{*traffic.last, now};
            for (const Counter& counter : kCounters) {
                if (const auto rate = interval.rate(counter)) traffic.rates[counter.key] = *rate;
            }
            bytes = traffic.rates["rx_fcoe_bytes"] + traffic.rates["tx_fcoe_bytes"];
        }
        traffic.last = now;
    } catch (const trelm::Error& error) {
        traffic.trouble = explain(error).meaning;
        traffic.last.reset();
    }
    traffic.history.push_back(bytes);
    if (traffic.history.size() > kMostHistory) traffic.history.pop_front();
}

void TopModel::fail(uint32_t instance, const std::string& trouble) {
    ports_[{instance, 0}].label = port_label(instance);
    for (auto& [place, traffic] : ports_) {
        if (place.first != instance) continue;
        traffic.state = "failed";
        traffic.trouble = trouble;
        traffic.rates.clear();
        traffic.last.reset();
    }
}

void TopModel::sample_adapter(const LoadedHost& host, uint32_t instance) {
    const trelm::Adapter adapter = open_adapter(host, instance);
    const TRELM_FCOE_INFO info = ask_adapter_info(adapter);
    const std::vector<PortState> ports = ask_ports(adapter);
    if (!filter_.admits(instance, info, ports.front())) return;
    for (uint32_t i = 0; i < ports.size(); ++i) {
        const std::string label = i == 0 ? port_label(instance) : port_label(instance, ports[i].npiv_index);
        PortTraffic& traffic = ports_[{instance, i}];
        if (traffic.label != label) traffic = PortTraffic();
        traffic.label = label;
        sample_port(adapter, ports[i], traffic);
    }
    std::erase_if(ports_, [&](const auto& entry) {
        return entry.first.first == instance && entry.first.second >= ports.size();
    });
}

void TopModel::sample(const LoadedHost* host) {
    uint32_t most = 0;
    for (const auto& [place, traffic] : ports_) most = std::max(most, place.first + 1);
    for (uint32_t instance = 0; instance < (host != nullptr ? host->port_count() : most); ++instance) {
        try {
            if (host == nullptr) {
                fail(instance, "no driver answers");
            } else {
                sample_adapter(*host, instance);
            }
        } catch (const trelm::Error& error) {
            if (filter_.admits(instance, {}, {})) fail(instance, explain(error).meaning);
        }
    }
}

std::vector<const PortTraffic*> TopModel::ports(TopOrder order) const {
    std::vector<const PortTraffic*> sorted;
    for (const auto& [place, traffic] : ports_) sorted.push_back(&traffic);
    if (order == TopOrder::port) return sorted;
    std::stable_sort(sorted.begin(), sorted.end(), [order](const PortTraffic* a, const PortTraffic* b) {
        return order == TopOrder::traffic ? a->bytes() > b->bytes() : a->errors() > b->errors();
    });
    return sorted;
}

std::string graph(const std::deque<double>& history, std::size_t span, std::size_t width) {
    static constexpr std::array<std::string_view, 9> blocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr std::array<std::string_view, 9> ascii{" ", ".", ".", ":", ":", "|", "|", "#", "#"};
    const auto& heights = utf8_locale() ? blocks : ascii;
    if (width == 0) return {};
    const std::size_t group = std::max<std::size_t>((std::min(span, kMostHistory) + width - 1) / width, 1);
    std::vector<double> columns;  // the newest first
    for (std::size_t end = history.size(); end > 0 && columns.size() < width;) {
        const std::size_t count = std::min(group, end);
        end -= count;
        const auto first = history.begin() + static_cast<std::ptrdiff_t>(end);
        const double sum = std::accumulate(first, first + static_cast<std::ptrdiff_t>(count), 0.0);
        columns.push_back(sum / static_cast<double>(count));
    }
    const double highest = columns.empty() ? 0 : *std::max_element(columns.begin(), columns.end());
    std::string out(width - columns.size(), ' ');
    for (auto value = columns.rbegin(); value != columns.rend(); ++value) {
        // Any traffic at all shows as at least one step.
        const double height = highest > 0 ? std::ceil(*value / highest * (heights.size() - 1)) : 0;
        out += heights[static_cast<std::size_t>(height)];
    }
    return out;
}

}  // namespace trelmctl
