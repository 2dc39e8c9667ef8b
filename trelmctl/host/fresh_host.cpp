#include "fresh_host.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "probed_library.h"
#include "requests.h"
#include "text.h"

namespace trelmctl {
namespace {

// After this time a look continues without the ports that have not answered.
constexpr std::chrono::milliseconds kRoundTime{500};

// A load that takes longer than this is late.
constexpr std::chrono::seconds kLoadPatience{2};

bool says_its_name(const PortProbe& probe) { return probe.wwpn() != std::array<uint8_t, 8>{}; }

}  // namespace

struct FreshHost::Load : ProbedLibrary<PortProbe> {
    using ProbedLibrary::ProbedLibrary;
};

FreshHost::FreshHost(double most_age_in_seconds) : most_age_(most_age_in_seconds) {}
FreshHost::~FreshHost() = default;

// Freeing the library waits for calls that have not returned. So the library is not loaded again until they
// have.
void FreshHost::load(Clock::time_point deadline) {
    const auto now = Clock::now();
    const bool is_due = load_began_ == Clock::time_point{} || now - load_began_ >= most_age_;
    if (!load_.is_pending() && is_due && (!load_ || load_->workers.wait_idle(now))) {
        load_began_ = now;
        load_.begin([] {
            note_request("TRELM_LoadLibrary");
            return std::make_unique<Load>(std::make_shared<const trelm::Library>());
        });
    }
    if (load_.finish(deadline) && load_) name_ports();
}

// A port is identified by its WWPN. If the driver did not report it during the load, the port gets the key of
// the port that had this number before, or else the key of another port that is missing now.
void FreshHost::name_ports() {
    std::vector<std::string> keys;
    const auto is_taken = [&](const std::string& key) {
        return key.empty() || std::find(keys.begin(), keys.end(), key) != keys.end();
    };
    const auto name = [&](PortProbe& probe, std::string key) {
        if (is_taken(key)) key += fmt::format("#{}", probe.instance());
        probe.set_key(key);
        keys.push_back(std::move(key));
    };
    for (const auto& probe : load_->probes) {
        const std::array<uint8_t, 8> wwpn = probe->wwpn();
        if (says_its_name(*probe)) name(*probe, hex_bytes(wwpn.data(), wwpn.size(), ":"));
    }
    for (const auto& probe : load_->probes) {
        if (says_its_name(*probe)) continue;
        std::string key = probe->instance() < keys_.size() ? keys_[probe->instance()] : "";
        if (is_taken(key)) {
            const auto missing = std::find_if_not(keys_.begin(), keys_.end(), is_taken);
            key = missing == keys_.end() ? "" : *missing;
        }
        name(*probe, std::move(key));
    }
    keys_.clear();
    for (const auto& probe : load_->probes) keys_.push_back(probe->key());
}

Answer FreshHost::missing_load() const {
    if (!load_.is_pending()) return Answer::failed;
    return Clock::now() - load_began_ >= kLoadPatience ? Answer::late : Answer::awaited;
}

HostLook FreshHost::look(const Wishes& wishes) {
    const auto deadline = Clock::now() + kRoundTime;
    HostLook host;
    load(deadline);
    host.answer = load_ ? Answer::here : missing_load();
    if (!load_) return host;
    load_->ask_all([wishes](PortProbe& probe) { probe.ask(wishes); }, deadline);
    for (const auto& probe : load_->probes) host.adapters.push_back(probe->take());
    return host;
}

// Gives calls that are about to return the time to do so.
bool FreshHost::is_stuck() { return load_.is_stuck(Clock::now() + kRoundTime); }

}  // namespace trelmctl
