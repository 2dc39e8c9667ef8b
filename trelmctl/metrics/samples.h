// samples.h - the result of one scrape: plain data, from the host down to its LUNs. Values that could not be
// read are absent. `labels` is the text of the labels that all metrics of the object have.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "counter_history.h"
#include "luns.h"
#include "trelm_mgmt.hpp"

namespace trelmctl::metrics {

struct LunSample {
    std::string labels;
    ListedLun listed;

    bool answers() const { return !listed.failure; }
};

struct TargetSample {
    std::string labels;
    TRELM_TGT_INFO info{};
    std::optional<uint32_t> luns;  // absent: the target did not answer
    std::vector<LunSample> lun_list;
};

struct PortName {
    std::string label;  // instance number; for a virtual port also its NPIV index: "0", "0/1"
    std::string labels;
    std::string identity;  // stays the same when the library is loaded again
    uint32_t npiv_index = 0;
    bool is_virtual = false;
};

// A physical or virtual port.
struct PortSample : PortName {
    explicit PortSample(PortName name) : PortName(std::move(name)) {}

    bool late = false;  // no answer within the deadline
    std::chrono::duration<double> took{};
    std::optional<TRELM_VNPORT_INFO> info;
    std::optional<TRELM_PORT_STATS> stats;
    CounterDates counting_since;
    std::optional<std::vector<TargetSample>> targets;

    bool complete() const { return info && stats && targets; }
};

struct AdapterSample {
    std::optional<TRELM_FCOE_INFO> info;
    std::vector<PortSample> ports;  // the physical one first
};

// The names of an adapter's ports, the physical one first.
using PortNames = std::vector<PortName>;

struct HostSample {
    bool loaded = false;
    std::chrono::duration<double> took{};
    // One for each instance number. If the library is not loaded: the adapters of the last load, without
    // answers.
    std::vector<AdapterSample> adapters;
};

}  // namespace trelmctl::metrics
