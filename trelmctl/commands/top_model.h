// top_model.h - the data of `trelmctl top` for each port: its current state and its traffic over the last
// minutes.
#pragma once

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host_look.h"

namespace trelmctl {

struct PortTraffic {
    std::string key;      // of the port
    std::string adapter;  // key of its physical port
    uint32_t instance = 0;
    std::size_t place = 0;  // index among the ports of the adapter
    std::string label;      // "0" or "0/1"
    std::string hba_name;
    std::string state;  // in words; "failed" if the port does not answer
    std::string trouble;
    std::optional<CounterSample> last;
    std::map<std::string, double> rates;  // by the counter's key; absent if no rate can be computed
    std::deque<double> history;           // bytes per second in both directions, the newest last
    std::optional<TargetsLook> targets;   // from the last look that asked for them

    bool in_trouble() const { return state != "online" || !trouble.empty() || errors() > 0; }
    // The sum of the rates of all error and recovery counters, per second.
    double errors() const;
    double bytes() const;
    void fall_silent(const std::string& new_state, const std::string& why);
};

// Whether an increase of the counter is a sign of trouble.
bool counts_errors(const Counter& counter);

enum class TopOrder { port, traffic, errors };

class TopModel {
  public:
    // Ports that fail stay, with their last known values.
    void take(const HostLook& host);

    // Why no port can be asked now; empty if ports can be asked.
    const std::string& trouble() const { return trouble_; }

    std::vector<const PortTraffic*> ports(TopOrder order) const;

  private:
    void take_adapter(const AdapterLook& adapter);
    static void take_port(const PortLook& port, PortTraffic& traffic);
    void take_silence(const AdapterLook& adapter);
    bool is_shown(const std::string& adapter) const;

    std::string trouble_;
    std::map<std::string, PortTraffic> ports_;  // by key
};

// A line of characters whose heights are the means of the last `span` values of a history, the newest on the
// right.
std::string graph(const std::deque<double>& history, std::size_t span, std::size_t width);

}  // namespace trelmctl
