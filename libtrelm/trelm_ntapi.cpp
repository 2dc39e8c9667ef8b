// The kron transport: its signature, its records, and how it numbers ports.

#include "trelm_ntapi.h"

#include <cstring>

#include "trelm_core/discovery.h"
#include "trelm_native.h"

vmk_MgmtCallbackInfo kron_fcapi_callbacks[10] = {
    trelm::detail::native_callback_info(NATIVE_CB_HBA_COUNT, sizeof(kronfc_hba_cnt_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_HOSTNO, sizeof(kronfc_hostno_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_PCI_INFO, sizeof(kronfc_pci_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_PORT_INFO, sizeof(kronfc_port_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_PORT_STATS, sizeof(kronfc_port_stats_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_TGT_INFO, sizeof(kronfc_tgt_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_FCF_INFO, sizeof(kronfc_fcf_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_SCSI_CMD, sizeof(kronfc_scsi_cmd_cb)),
    // The driver's signature has two more, which this library has no use for.
    trelm::detail::native_callback_info(24, 24),
    trelm::detail::native_callback_info(25, 262172),
};

vmk_MgmtApiSignature kron_fcapi_sig = {.version = 0x01000000,
                                       .name = {"kronnativefc"},
                                       .vendor = {"Calvexa"},
                                       .numCallbacks = 10,
                                       .callbacks = kron_fcapi_callbacks};
vmk_MgmtUserHandle kron_fcapi_handle = 0;

namespace {

void fill_port(trelm_priv_db& pdb, const trelm::detail::native_port_info& port) {
    TRELM_COPY(pdb, port.kron, hba_name);
}

void fill_hardware(trelm_hw_info& hw, const trelm::detail::native_port_info& port,
                   const dorfc_pci_info& pci) {
    TRELM_COPY(hw, port.kron, mfw_version);
    const uint8_t ports_on_adapter = trelm_is_quad_port_zr(&hw) == 0 ? 4 : 2;
    hw.phy_port_number = static_cast<uint8_t>(static_cast<uint8_t>(pci.function_num) % ports_on_adapter + 1);
}

}  // namespace

const trelm::detail::native_driver trelm::detail::kron_driver = {
    .signature = &kron_fcapi_sig,
    .cookie = 501,
    .handle = &kron_fcapi_handle,
    .signed_count = true,
    .port_info_exit_shows_result = true,
    TRELM_NATIVE_NAMES(trelmnt),
    .fill_port = fill_port,
    .fill_hardware = fill_hardware,
};

TRELM_DEFINE_NATIVE_TRANSPORT(trelmnt, kronfc, trelm::detail::kron_driver)
