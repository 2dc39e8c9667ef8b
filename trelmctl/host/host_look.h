// host_look.h - what one look at the host finds: plain data, from the host down to its LUNs.
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

// `awaited`: there is no answer yet, and what was known stands. `late`: there has been none for long.
enum class Answer { here, awaited, late, failed };

struct TargetLook {
    TRELM_TGT_INFO info{};
    std::optional<std::vector<uint64_t>> luns;  // absent: the target does not list them
};

struct TargetsLook {
    std::vector<TargetLook> targets;
    std::optional<Failure> failure;  // why others may be missing
};

// A physical or virtual port.
struct PortLook {
    std::string key;    // stays the same when the library is loaded anew, which numbers ports afresh
    std::string label;  // "0" or "0/1"
    bool is_virtual = false;
    PortState state;
    std::optional<CounterSample> counters;
    std::optional<Failure> counter_failure;  // why there are none
    std::optional<TargetsLook> targets;      // where they were asked for
};

// A physical port with its virtual ports.
struct AdapterLook {
    Answer answer = Answer::awaited;
    std::string key;  // that of the physical port
    uint32_t instance = 0;
    bool admitted = false;  // by the filter, as far as it can tell
    std::optional<TRELM_FCOE_INFO> info;
    std::vector<PortLook> ports;     // the physical one first; empty without an answer
    std::optional<Failure> failure;  // why the adapter cannot be opened

    bool says_nothing() const { return ports.empty() || !ports.front().state.info; }
    // Whether there may be virtual ports that the load did not find, since the driver refused it its answers.
    bool may_have_more_ports() const {
        return says_nothing() || std::all_of(std::begin(info->WWPN), std::end(info->WWPN),
                                             [](uint8_t byte) { return byte == 0; });
    }
    // Whether it is to be shown. One that was shown and cannot say what the filter asks for still is.
    bool is_wanted(bool was_shown) const { return admitted || (was_shown && says_nothing()); }
};

struct HostLook {
    Answer answer = Answer::awaited;    // of the library's load
    std::vector<AdapterLook> adapters;  // one for each instance number
};

}  // namespace trelmctl
