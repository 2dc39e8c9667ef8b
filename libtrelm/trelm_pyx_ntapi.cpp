// The pyx transport: its signature, its records, and how it numbers ports.

#include "trelm_pyx_ntapi.h"

#include <cstring>

#include "trelm_core/discovery.h"
#include "trelm_native.h"

vmk_MgmtCallbackInfo cx_fcoe_callbacks[8] = {
    trelm::detail::native_callback_info(NATIVE_CB_HBA_COUNT, sizeof(cx_fcoe_hba_cnt_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_HOSTNO, sizeof(cx_fcoe_hostno_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_PCI_INFO, sizeof(cx_fcoe_pci_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_PORT_INFO, sizeof(cx_fcoe_port_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_PORT_STATS, sizeof(cx_fcoe_port_stats_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_TGT_INFO, sizeof(cx_fcoe_tgt_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_FCF_INFO, sizeof(cx_fcoe_fcf_info_cb)),
    trelm::detail::native_callback_info(NATIVE_CB_SCSI_CMD, sizeof(cx_fcoe_scsi_cmd_cb)),
};

vmk_MgmtApiSignature cx_fcoe_sig = {.version = 0x01000000,
                                    .name = {"cx_fcoe"},
                                    .vendor = {"Calvexa"},
                                    .numCallbacks = 8,
                                    .callbacks = cx_fcoe_callbacks};
vmk_MgmtUserHandle cx_fcoe_handle = 0;

namespace {

void fill_port(trelm_priv_db& pdb, const trelm::detail::native_port_info& port) {
    TRELM_COPY(pdb, port.cx, hba_name);
}

void fill_hardware(trelm_hw_info& hw, const trelm::detail::native_port_info&, const dorfc_pci_info& pci) {
    hw.phy_port_number = static_cast<uint8_t>(pci.port_num);
}

}  // namespace

const trelm::detail::native_driver trelm::detail::pyx_driver = {
    .signature = &cx_fcoe_sig,
    .cookie = 601,
    .handle = &cx_fcoe_handle,
    .signed_count = false,
    .port_info_exit_shows_result = false,
    TRELM_NATIVE_NAMES(trelm_pyxnt),
    .fill_port = fill_port,
    .fill_hardware = fill_hardware,
};

TRELM_DEFINE_NATIVE_TRANSPORT(trelm_pyxnt, cx_fcoe, trelm::detail::pyx_driver)
