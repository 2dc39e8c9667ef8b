#include "targets.h"

#include <nlohmann/json.hpp>

#include "requests.h"
#include "text.h"
#include "words.h"

namespace trelmctl {

TargetList list_targets(const trelm::Adapter& adapter, uint32_t npiv_index) {
    TargetList list;
    note_request("TRELM_GetTgtInfo", adapter.instance(), npiv_index);
    const uint32_t code = adapter.list_targets(npiv_index, list.targets);
    if (code != TRELM_STATUS_OK)
        list.failure = explain({code, "TRELM_GetTgtInfo", adapter.instance(), npiv_index});
    return list;
}

std::string port_id_text(const TRELM_TGT_INFO& target) {
    return "0x" + hex_bytes(target.PortID + 1, sizeof target.PortID - 1, "");
}

Json to_json(const TRELM_TGT_INFO& target) {
    return {{"target", number(target.ScsiTgtNum)},   {"state", target_state_words(target.PortState)},
            {"state_raw", number(target.PortState)}, {"wwpn", address(target.WWPN)},
            {"wwnn", address(target.WWNN)},          {"port_id", port_id_text(target)},
            {"lun_count", number(target.LunCount)}};
}

}  // namespace trelmctl
