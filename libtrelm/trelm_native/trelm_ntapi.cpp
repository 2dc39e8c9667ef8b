// The kron transport: its signature, its records, and how it numbers ports.

#include "trelm_ntapi.h"

#include <cstring>

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
    // The signature of the driver has two more callbacks, which this library does not use.
    trelm::detail::native_callback_info(24, 24),
    trelm::detail::native_callback_info(25, 262172),
};

vmk_MgmtApiSignature kron_fcapi_sig = {.version = 0x01000000,
                                       .name = {"kronnativefc"},
                                       .vendor = {"Calvexa"},
                                       .numCallbacks = 10,
                                       .callbacks = kron_fcapi_callbacks};
vmk_MgmtUserHandle kron_fcapi_handle = 0;

using trelm::detail::give;
using trelm::detail::kKronDriver;
using trelm::detail::native_close_adapter;
using trelm::detail::native_find_all_instances;
using trelm::detail::native_open_adapter;
using trelm::detail::native_request;
using trelm::detail::native_send_scsi_cmd;

namespace {

void fill_port(trelm_priv_db& pdb, const trelm::detail::NativePortInfo& port) {
    TRELM_COPY(pdb, port.kron, hba_name);
}

void fill_hardware(trelm_hw_info& hw, const trelm::detail::NativePortInfo& port, const dorfc_pci_info& pci) {
    TRELM_COPY(hw, port.kron, mfw_version);
    const uint8_t ports_on_adapter = trelm_is_quad_port_zr(&hw) == 0 ? 4 : 2;
    hw.phy_port_number = static_cast<uint8_t>(static_cast<uint8_t>(pci.function_num) % ports_on_adapter + 1);
}

}  // namespace

const trelm::detail::NativeDriver trelm::detail::kKronDriver = {
    .signature = &kron_fcapi_sig,
    .cookie = 501,
    .handle = &kron_fcapi_handle,
    .signed_count = true,
    .port_info_exit_shows_result = true,
    .discovery_names = {"trelmnt_find_all_instances", "trelmnt_get_hw_info_inst", "trelmnt_get_parent_port"},
    .open_name = "trelmnt_open_adapter",
    .close_name = "trelmnt_close_adapter",
    .operation_names = {"trelmnt_get_port_info", "trelmnt_get_port_stats", "trelmnt_get_tgt_info",
                        "trelmnt_get_fcf_info", "trelmnt_send_scsi_cmd"},
    .fill_port = fill_port,
    .fill_hardware = fill_hardware,
};

uint32_t trelmnt_find_all_instances(const char*, uint32_t* start_inst) {
    return native_find_all_instances(kKronDriver, start_inst);
}

uint32_t trelmnt_open_adapter(trelm_priv_db* pdb, uint32_t instance, uint32_t* papi_handle) {
    return native_open_adapter(kKronDriver, pdb, instance, papi_handle);
}

uint32_t trelmnt_close_adapter(trelm_priv_db* pdb) { return native_close_adapter(kKronDriver, pdb); }

uint32_t trelmnt_get_port_info(trelm_priv_db* pdb, kronfc_port_info* port_info, uint32_t* stat) {
    return give(native_request(kKronDriver, trelm::detail::kPortInfo, pdb, port_info, sizeof *port_info),
                stat);
}

uint32_t trelmnt_get_port_stats(trelm_priv_db* pdb, kronfc_port_stats* pstats, uint32_t* stat) {
    return give(native_request(kKronDriver, trelm::detail::kPortStats, pdb, pstats, sizeof *pstats), stat);
}

uint32_t trelmnt_get_tgt_info(trelm_priv_db* pdb, kronfc_tgt_info* ptgt, uint32_t* stat) {
    return give(native_request(kKronDriver, trelm::detail::kTgtInfo, pdb, ptgt, sizeof *ptgt), stat);
}

uint32_t trelmnt_get_fcf_info(trelm_priv_db* pdb, kronfc_fcf_info* pfcf, uint32_t* stat) {
    return give(native_request(kKronDriver, trelm::detail::kFcfInfo, pdb, pfcf, sizeof *pfcf), stat);
}

uint32_t trelmnt_send_scsi_cmd(trelm_priv_db* pdb, kronfc_scsi_cmd* pcmd, uint32_t* stat) {
    return give(native_send_scsi_cmd(kKronDriver, pdb, pcmd), stat);
}

trelm_hw_info* trelmnt_get_hw_info_inst(const kronfc_pci_info* pci_info) {
    return trelm::detail::find_hw_info(__func__, *pci_info);
}

trelm_priv_db* trelmnt_get_parent_port(const kronfc_pci_info* pci_info) {
    return trelm::detail::find_parent(__func__, *pci_info);
}
