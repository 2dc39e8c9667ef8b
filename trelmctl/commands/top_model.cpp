#include "top_model.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <numeric>
#include <set>
#include <tuple>

#include "terminal.h"
#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

constexpr std::size_t kMostHistory = 3000;

void add_to(std::deque<double>& history, double value) {
    history.push_back(value);
    if (history.size() > kMostHistory) history.pop_front();
}

}  // namespace

bool counts_errors(const Counter& counter) {
    const std::string_view group = counter.group;
    return group == "errors" || group == "recovery";
}

double PortTraffic::errors() const {
    double sum = 0;
    for (const Counter& counter : kCounters) {
        const auto rate = rates.find(counter.key);
        if (counts_errors(counter) && rate != rates.end()) sum += rate->second;
    }
    return sum;
}

double PortTraffic::bytes() const { return history.empty() ? 0 : history.back(); }

void TopModel::take_port(const PortLook& port, PortTraffic& traffic) {
    traffic.rates.clear();
    traffic.trouble.clear();
    if (port.state.info) {
        traffic.state = port_state_words(port.state.info->PortState);
        traffic.hba_name = field_text(port.state.info->HbaName);
    } else {
        traffic.state = "failed";
        traffic.trouble = port.state.failure->meaning;
    }
    double bytes = 0;
    if (port.counter_failure) traffic.trouble = port.counter_failure->meaning;
    if (port.counters && traffic.last) {
        const CounterInterval interval{*traffic.last, *port.counters};
        for (const Counter& counter : kCounters) {
            if (const auto rate = interval.rate(counter)) traffic.rates[counter.key] = *rate;
        }
        bytes = traffic.rates["rx_fcoe_bytes"] + traffic.rates["tx_fcoe_bytes"];
    }
    traffic.last = port.counters;
    if (port.targets) traffic.targets = port.targets;
    add_to(traffic.history, bytes);
}

void PortTraffic::fall_silent(const std::string& new_state, const std::string& why) {
    state = new_state;
    trouble = why;
    rates.clear();
    last.reset();
    add_to(history, 0);
}

// The adapter's ports keep their last values. A port that has never answered is shown with its number only.
void TopModel::take_silence(const AdapterLook& adapter) {
    if (!is_shown(adapter.key)) {
        PortTraffic& traffic = ports_[adapter.key];
        traffic.key = traffic.adapter = adapter.key;
        traffic.label = port_label(adapter.instance);
        traffic.state = "-";
    }
    for (auto& [key, traffic] : ports_) {
        if (traffic.adapter != adapter.key) continue;
        traffic.instance = adapter.instance;
        if (adapter.answer == Answer::late) traffic.fall_silent("no answer", "the driver does not answer");
        if (adapter.answer == Answer::failed) traffic.fall_silent("failed", adapter.failure->meaning);
    }
}

void TopModel::take_adapter(const AdapterLook& adapter) {
    if (adapter.ports.empty()) return take_silence(adapter);
    std::set<std::string> present;
    for (std::size_t i = 0; i < adapter.ports.size(); ++i) {
        const PortLook& port = adapter.ports[i];
        PortTraffic& traffic = ports_[port.key];
        traffic.key = port.key;
        traffic.adapter = adapter.key;
        traffic.instance = adapter.instance;
        traffic.place = i;
        traffic.label = port.label;
        take_port(port, traffic);
        present.insert(port.key);
    }
    const auto is_missing = [&](const PortTraffic& traffic) {
        return traffic.adapter == adapter.key && !present.contains(traffic.key);
    };
    if (!adapter.may_have_more_ports())
        std::erase_if(ports_, [&](const auto& entry) { return is_missing(entry.second); });
    for (auto& [key, traffic] : ports_) {
        if (is_missing(traffic)) traffic.fall_silent("failed", "the driver did not list the port");
    }
}

bool TopModel::is_shown(const std::string& adapter) const {
    return std::any_of(ports_.begin(), ports_.end(),
                       [&](const auto& entry) { return entry.second.adapter == adapter; });
}

void TopModel::take(const HostLook& host) {
    if (host.answer == Answer::awaited) return;
    trouble_.clear();
    if (host.answer != Answer::here) {
        trouble_ = host.answer == Answer::late ? "no driver answers" : "the library cannot be loaded";
        for (auto& [key, traffic] : ports_) traffic.fall_silent("unknown", trouble_);
        return;
    }
    std::set<std::string> wanted;
    for (const AdapterLook& adapter : host.adapters) {
        if (!adapter.is_wanted(is_shown(adapter.key))) continue;
        wanted.insert(adapter.key);
        take_adapter(adapter);
    }
    std::erase_if(ports_, [&](const auto& entry) { return !wanted.contains(entry.second.adapter); });
}

std::vector<const PortTraffic*> TopModel::ports(TopOrder order) const {
    std::vector<const PortTraffic*> sorted;
    for (const auto& [key, traffic] : ports_) sorted.push_back(&traffic);
    std::sort(sorted.begin(), sorted.end(), [](const PortTraffic* a, const PortTraffic* b) {
        return std::tie(a->instance, a->place) < std::tie(b->instance, b->place);
    });
    if (order == TopOrder::port) return sorted;
    std::stable_sort(sorted.begin(), sorted.end(), [order](const PortTraffic* a, const PortTraffic* b) {
        return order == TopOrder::traffic ? a->bytes() > b->bytes() : a->errors() > b->errors();
    });
    return sorted;
}

std::string graph(const std::deque<double>& history, std::size_t span, std::size_t width) {
    static constexpr std::array<std::string_view, 9> kBlocks{" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
    static constexpr std::array<std::string_view, 9> kAscii{" ", ".", ".", ":", ":", "|", "|", "#", "#"};
    const auto& heights = utf8_locale() ? kBlocks : kAscii;
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
