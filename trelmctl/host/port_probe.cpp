#include "port_probe.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "luns.h"
#include "requests.h"
#include "targets.h"
#include "text.h"

namespace trelmctl {
namespace {

// A port that does not answer within this time is late.
constexpr std::chrono::seconds kPatience{2};

}  // namespace

PortProbe::PortProbe(std::shared_ptr<const trelm::Library> library, uint32_t instance)
    : library_(std::move(library)), instance_(instance) {
    try {
        open();
    } catch (const trelm::Error&) {
        // ask() tries again.
    }
}

void PortProbe::open() {
    if (adapter_) return;
    note_request("TRELM_OpenAdapter", instance_);
    trelm::Adapter adapter(*library_, instance_);
    const TRELM_FCOE_INFO info = ask_adapter_info(adapter);
    adapter_ = std::move(adapter);
    const std::lock_guard lock(mutex_);
    info_ = info;
}

std::array<uint8_t, 8> PortProbe::wwpn() const {
    std::array<uint8_t, 8> name{};
    if (info_) std::memcpy(name.data(), info_->WWPN, name.size());
    return name;
}

TargetsLook PortProbe::look_at_targets(uint32_t npiv_index) const {
    TargetsLook look;
    TargetList list = list_targets(*adapter_, npiv_index);
    look.failure = std::move(list.failure);
    for (const TRELM_TGT_INFO& info : list.targets) {
        TargetLook& target = look.targets.emplace_back();
        target.info = info;
        try {
            // The library's own list also has 0 LUNs for a target that did not answer.
            target.luns = report_luns(*adapter_, npiv_index, info.ScsiTgtNum);
        } catch (const CommandFailed&) {
            // Absent.
        }
    }
    return look;
}

void PortProbe::look_at_port(const Wishes& wishes, PortLook& port) const {
    const uint32_t npiv_index = port.state.npiv_index;
    try {
        if (wishes.counters) port.counters = sample_counters(*adapter_, npiv_index);
    } catch (const trelm::Error& error) {
        port.counter_failure = explain(error);
    }
    const bool wanted = wishes.targets || wishes.targets_of == port.key;
    if (wanted && port.state.info) port.targets = look_at_targets(npiv_index);
}

AdapterLook PortProbe::look_at(const Wishes& wishes) {
    AdapterLook look;
    look.answer = Answer::here;
    try {
        open();
        std::vector<PortState> states = ask_ports(*adapter_);
        look.admitted = wishes.filter.admits(instance_, info_, states.front());
        for (PortState& state : states) {
            PortLook& port = look.ports.emplace_back();
            port.is_virtual = look.ports.size() > 1;
            port.label = port.is_virtual ? port_label(instance_, state.npiv_index) : port_label(instance_);
            port.key = port.is_virtual ? fmt::format("{}/{}", key_, state.npiv_index) : key_;
            port.state = std::move(state);
        }
        if (!look.is_wanted(true)) return look;
        for (PortLook& port : look.ports) look_at_port(wishes, port);
    } catch (const trelm::Error& error) {
        look.answer = Answer::failed;
        look.failure = explain(error);
        look.ports.clear();
        look.admitted = wishes.filter.admits(instance_, info_, {});
    }
    return look;
}

void PortProbe::ask(const Wishes& wishes) {
    {
        const std::lock_guard lock(mutex_);
        asked_since_ = Clock::now();
        admitted_ = wishes.filter.admits(instance_, info_, {});
    }
    AdapterLook look = look_at(wishes);
    const std::lock_guard lock(mutex_);
    answer_ = std::move(look);
    asked_since_.reset();
}

AdapterLook PortProbe::take() {
    const std::lock_guard lock(mutex_);
    AdapterLook look;
    if (answer_) {
        look = std::move(*answer_);
        answer_.reset();
    } else {
        const bool late = asked_since_ && Clock::now() - *asked_since_ >= kPatience;
        look.answer = late ? Answer::late : Answer::awaited;
        look.admitted = admitted_;
    }
    look.key = key_;
    look.instance = instance_;
    look.info = info_;
    return look;
}

}  // namespace trelmctl
