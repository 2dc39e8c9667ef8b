#include "port_filter.h"

#include <cstring>

#include "text.h"
#include "words.h"

namespace trelmctl {
namespace {

bool is_selected(const PortSelector& selector, uint32_t instance,
                 const std::optional<TRELM_FCOE_INFO>& adapter, const std::optional<PortState>& physical) {
    if (selector.instance) return *selector.instance == instance;
    if (selector.wwpn)
        return adapter && std::memcmp(adapter->WWPN, selector.wwpn->data(), sizeof adapter->WWPN) == 0;
    return physical && physical->info && field_text(physical->info->HbaName) == selector.hba_name;
}

}  // namespace

bool PortFilter::admits(uint32_t instance, const std::optional<TRELM_FCOE_INFO>& adapter,
                        const std::optional<PortState>& physical) const {
    if (port && !is_selected(*port, instance, adapter, physical)) return false;
    if (!driver.empty() && (!adapter || field_text(adapter->DriverName) != driver)) return false;
    if (state.empty()) return true;
    return (physical && physical->info ? port_state_words(physical->info->PortState) : "failed") == state;
}

}  // namespace trelmctl
