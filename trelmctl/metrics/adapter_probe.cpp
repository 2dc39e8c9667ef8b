#include "adapter_probe.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "exposition.h"
#include "luns.h"
#include "terminal.h"
#include "text.h"
#include "words.h"

namespace trelmctl::metrics {
namespace {

// The answer, or nothing if the request fails.
template <typename Ask>
auto attempt(Ask ask) -> std::optional<decltype(ask())> {
    try {
        return ask();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// Adds the lifetime of this object to a sum.
class Stopwatch {
  public:
    explicit Stopwatch(std::chrono::duration<double>& sum) : sum_(sum) {}
    ~Stopwatch() { sum_ += Clock::now() - begin_; }
    Stopwatch(const Stopwatch&) = delete;
    Stopwatch& operator=(const Stopwatch&) = delete;

  private:
    std::chrono::duration<double>& sum_;
    Clock::time_point begin_ = Clock::now();
};

// The targets that answer. The caller has just read the port's state, so the library knows the current number
// of targets. That number may have any value, but the library fills at most one element for each target
// number.
std::optional<std::vector<TRELM_TGT_INFO>> list_targets(const trelm::Adapter& adapter, uint32_t npiv_index) {
    std::vector<TRELM_TGT_INFO> elements(TRELM_MAX_TARGETS);
    for (TRELM_TGT_INFO& element : elements) element.ScsiTgtNum = UINT32_MAX;
    uint32_t count = UINT32_MAX;
    TRELM_TGT_INFO* array = elements.data();
    if (TRELM_GetTgtInfo(adapter.handle(), npiv_index, &count, &array) != TRELM_STATUS_OK)
        return std::nullopt;
    const auto filled = [](const TRELM_TGT_INFO& element) { return element.ScsiTgtNum != UINT32_MAX; };
    elements.erase(std::partition_point(elements.begin(), elements.end(), filled), elements.end());
    return elements;
}

// The library's list also has 0 for a target that did not answer. This asks such a target again.
bool reports_no_luns(const trelm::Adapter& adapter, uint32_t npiv_index, uint32_t target) {
    std::array<uint8_t, 16> data;
    data.fill(0xFF);
    TRELM_SCSI_CMND command =
        trelm::scsi_command(target, 0, {0xA0, 0, 0, 0, 0, 0, 0, 0, 0, uint8_t{data.size()}, 0, 0});
    try {
        adapter.send(npiv_index, command, data.data(), data.size());
    } catch (const trelm::Error&) {
        return false;
    }
    const auto is_zero = [](uint8_t byte) { return byte == 0; };
    return command.Sense[0] == 0 && std::all_of(data.begin(), data.begin() + 4, is_zero);
}

std::vector<LunSample> sample_luns(const trelm::Adapter& adapter, uint32_t npiv_index,
                                   const TargetSample& target) {
    Progress silent(false);
    std::vector<LunSample> luns;
    for (ListedLun& listed :
         list_luns(adapter, npiv_index, target.info.ScsiTgtNum, LunDetail::named, silent)) {
        std::string labels = Labels(target.labels).add("lun", lun_text(listed.lun)).text();
        luns.push_back({std::move(labels), std::move(listed)});
    }
    return luns;
}

}  // namespace

AdapterSample unanswered(const PortNames& ports, bool late, std::chrono::duration<double> took) {
    AdapterSample adapter;
    for (const PortName& name : ports) {
        PortSample& port = adapter.ports.emplace_back(name);
        port.late = late;
        port.took = took;
    }
    return adapter;
}

AdapterProbe::AdapterProbe(std::shared_ptr<const trelm::Library> library, uint32_t instance, bool luns)
    : library_(std::move(library)), instance_(instance), luns_(luns), names_{name(0, false)} {}

PortName AdapterProbe::name(uint32_t npiv_index, bool is_virtual) const {
    PortName port;
    port.label = fmt::to_string(instance_);
    if (is_virtual) port.label += fmt::format("/{}", npiv_index);
    port.labels = Labels().add("port", port.label).text();
    port.npiv_index = npiv_index;
    port.is_virtual = is_virtual;
    if (info_) port.identity = fmt::format("{}/{}", address(info_->WWPN), npiv_index);
    return port;
}

void AdapterProbe::open() {
    if (adapter_) return;
    trelm::Adapter adapter(*library_, instance_);
    info_ = adapter.info();
    for (const uint32_t index : adapter.port_indexes()) ports_.push_back({index, {}});
    adapter_ = std::move(adapter);
}

// The port whose type is physical, or else the first port whose type is unknown.
std::size_t AdapterProbe::physical_port() const {
    const auto first_of = [&](std::optional<uint32_t> type) {
        return static_cast<std::size_t>(
            std::find_if(ports_.begin(), ports_.end(),
                         [&](const KnownPort& port) { return port.type == type; }) -
            ports_.begin());
    };
    const std::size_t physical = first_of(TRELM_PORTTYPE_PHYSICAL);
    return physical < ports_.size() ? physical : first_of(std::nullopt);
}

AdapterSample AdapterProbe::ask_adapter() {
    open();
    AdapterSample adapter{.info = info_, .ports = {}};
    std::vector<std::optional<TRELM_VNPORT_INFO>> states;
    std::vector<std::chrono::duration<double>> took(ports_.size());
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        const Stopwatch stopwatch(took[i]);
        KnownPort& port = ports_[i];
        states.push_back(attempt([&] { return adapter_->port_info(port.npiv_index); }));
        if (states.back()) port.type = states.back()->PortType;
    }
    const std::size_t physical = physical_port();
    if (physical == ports_.size()) adapter.ports.push_back(PortSample(name(0, false)));
    for (std::size_t i = 0; i < ports_.size(); ++i) {
        PortSample port(name(ports_[i].npiv_index, i != physical));
        port.info = states[i];
        port.took = took[i];
        ask_port(ports_[i].npiv_index, port);
        adapter.ports.insert(i == physical ? adapter.ports.begin() : adapter.ports.end(), std::move(port));
    }
    return adapter;
}

void AdapterProbe::ask_port(uint32_t npiv_index, PortSample& port) const {
    const Stopwatch stopwatch(port.took);
    port.stats = attempt([&] { return adapter_->stats(npiv_index); });
    if (!port.info) return;
    const auto listed = list_targets(*adapter_, npiv_index);
    if (!listed) return;
    port.targets.emplace();
    for (const TRELM_TGT_INFO& info : *listed) {
        TargetSample& target = port.targets->emplace_back();
        target.labels = Labels(port.labels).add("target", fmt::to_string(number(info.ScsiTgtNum))).text();
        target.info = info;
        if (info.LunCount != 0 || reports_no_luns(*adapter_, npiv_index, info.ScsiTgtNum))
            target.luns = number(info.LunCount);
        if (!luns_) continue;
        if (auto luns = attempt([&] { return sample_luns(*adapter_, npiv_index, target); }))
            target.lun_list = std::move(*luns);
    }
}

void AdapterProbe::ask(uint64_t round) {
    {
        const std::lock_guard lock(mutex_);
        asked_since_ = Clock::now();
    }
    auto answer = attempt([&] { return ask_adapter(); });
    const std::lock_guard lock(mutex_);
    if (!answer) answer = AdapterSample{.info = {}, .ports = {PortSample(names_.front())}};
    names_.assign(answer->ports.begin(), answer->ports.end());
    answer_ = std::move(*answer);
    answered_round_ = round;
    asked_since_.reset();
}

AdapterSample AdapterProbe::take(uint64_t round, Clock::time_point round_began) {
    const std::lock_guard lock(mutex_);
    if (answered_round_ == round) return std::exchange(answer_, {});
    return unanswered(names_, true, Clock::now() - asked_since_.value_or(round_began));
}

}  // namespace trelmctl::metrics
