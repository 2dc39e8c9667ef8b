// top_model.h - the data of `trelmctl top` for each port: its current state and its traffic over the last
// minutes.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "counter_rates.h"
#include "port_filter.h"

namespace trelmctl {

struct PortTraffic {
    std::string label;  // "0" or "0/1"
    std::string hba_name;
    std::string state;  // in words; "failed" if the port does not answer
    std::string trouble;
    uint32_t instance = 0;
    uint32_t npiv_index = 0;
    std::optional<CounterSample> last;
    std::map<std::string, double> rates;  // by the counter's key; none where it has no rate
    std::deque<double> history;           // bytes per second in both directions, the newest last

    bool in_trouble() const { return state != "online" || errors() > 0; }
    // Of the group of counters, per second.
    double errors() const;
    double bytes() const;
};

enum class TopOrder { port, traffic, errors };

class TopModel {
  public:
    explicit TopModel(PortFilter filter) : filter_(std::move(filter)) {}

    // Asks every port once. A port that fails stays with its last values; without a host no port answers.
    void sample(const LoadedHost* host);

    std::vector<const PortTraffic*> ports(TopOrder order) const;

  private:
    void sample_adapter(const LoadedHost& host, uint32_t instance);
    static void sample_port(const trelm::Adapter& adapter, const PortState& port, PortTraffic& traffic);
    void fail(uint32_t instance, const std::string& trouble);

    PortFilter filter_;
    std::map<std::pair<uint32_t, uint32_t>, PortTraffic> ports_;  // by instance and place on the adapter
};

// A line of characters whose heights are the means of the last `span` values of a history, the newest on the
// right.
std::string graph(const std::deque<double>& history, std::size_t span, std::size_t width);

}  // namespace trelmctl
