// host_look.h - the result of one look at the host: plain data, from the host down to its LUNs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "counter_rates.h"
#include "ports.h"

namespace trelmctl {

// `awaited`: no answer yet; earlier values remain valid. `late`: no answer for a long time.
enum class Answer { here, awaited, late, failed };

struct TargetLook {
    TRELM_TGT_INFO info{};
    std::optional<std::vector<uint64_t>> luns;  // absent: the target did not list them
};

struct TargetsLook {
    std::vector<TargetLook> targets;
    std::optional<Failure> failure;  // why targets may be missing
};

// A physical or virtual port.
struct PortLook {
    std::string key;    // stays the same when the library is loaded again, although port numbers may change
    std::string label;  // "0" or "0/1"
    bool is_virtual = false;
    PortState state;
    std::optional<CounterSample> counters;
    std::optional<Failure> counter_failure;  // why there are none
    std::optional<TargetsLook> targets;      // if requested
};

// A physical port with its virtual ports.
struct AdapterLook {
    Answer answer = Answer::awaited;
    std::string key;  // that of the physical port
    uint32_t instance = 0;
    bool admitted = false;  // by the filter, from what is known
    std::optional<TRELM_FCOE_INFO> info;
    std::vector<PortLook> ports;     // the physical one first; empty without an answer
    std::optional<Failure> failure;  // why the adapter cannot be opened

    bool says_nothing() const { return ports.empty() || !ports.front().state.info; }
    // Whether there may be virtual ports that the load did not find because the driver failed its requests.
    bool may_have_more_ports() const {
        return says_nothing() || std::all_of(std::begin(info->WWPN), std::end(info->WWPN),
                                             [](uint8_t byte) { return byte == 0; });
    }
    // Whether to show it. An adapter that was shown before stays if the filter cannot be applied to it now.
    bool is_wanted(bool was_shown) const { return admitted || (was_shown && says_nothing()); }
};

struct HostLook {
    Answer answer = Answer::awaited;    // of the library's load
    std::vector<AdapterLook> adapters;  // one for each instance number
};

}  // namespace trelmctl
