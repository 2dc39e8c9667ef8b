// The pyx transport: its signature, its records, and how it numbers ports.

#include "trelm_pyx_ntapi.h"

#include <cstring>

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

using trelm::detail::give;
using trelm::detail::kPyxDriver;
using trelm::detail::native_close_adapter;
using trelm::detail::native_find_all_instances;
using trelm::detail::native_open_adapter;
using trelm::detail::native_request;
using trelm::detail::native_send_scsi_cmd;

namespace {

void fill_port(trelm_priv_db& pdb, const trelm::detail::NativePortInfo& port) {
    TRELM_COPY(pdb, port.cx, hba_name);
}

void fill_hardware(trelm_hw_info& hw, const trelm::detail::NativePortInfo&, const dorfc_pci_info& pci) {
    hw.phy_port_number = static_cast<uint8_t>(pci.port_num);
}

}  // namespace

const trelm::detail::NativeDriver trelm::detail::kPyxDriver = {
    .signature = &cx_fcoe_sig,
    .cookie = 601,
    .handle = &cx_fcoe_handle,
    .signed_count = false,
    .port_info_exit_shows_result = false,
    .discovery_names = {"trelm_pyxnt_find_all_instances", "trelm_pyxnt_get_hw_info_inst",
                        "trelm_pyxnt_get_parent_port"},
    .open_name = "trelm_pyxnt_open_adapter",
    .close_name = "trelm_pyxnt_close_adapter",
    .operation_names = {"trelm_pyxnt_get_port_info", "trelm_pyxnt_get_port_stats", "trelm_pyxnt_get_tgt_info",
                        "trelm_pyxnt_get_fcf_info", "trelm_pyxnt_send_scsi_cmd"},
    .fill_port = fill_port,
    .fill_hardware = fill_hardware,
};

uint32_t trelm_pyxnt_find_all_instances(const char*, uint32_t* start_inst) {
    return native_find_all_instances(kPyxDriver, start_inst);
}

uint32_t trelm_pyxnt_open_adapter(trelm_priv_db* pdb, uint32_t instance, uint32_t* papi_handle) {
    return native_open_adapter(kPyxDriver, pdb, instance, papi_handle);
}

uint32_t trelm_pyxnt_close_adapter(trelm_priv_db* pdb) { return native_close_adapter(kPyxDriver, pdb); }

uint32_t trelm_pyxnt_get_port_info(trelm_priv_db* pdb, cx_fcoe_port_info* port_info, uint32_t* stat) {
    return give(native_request(kPyxDriver, trelm::detail::kPortInfo, pdb, port_info, sizeof *port_info),
                stat);
}

uint32_t trelm_pyxnt_get_port_stats(trelm_priv_db* pdb, cx_fcoe_port_stats* pstats, uint32_t* stat) {
    return give(native_request(kPyxDriver, trelm::detail::kPortStats, pdb, pstats, sizeof *pstats), stat);
}

uint32_t trelm_pyxnt_get_tgt_info(trelm_priv_db* pdb, cx_fcoe_tgt_info* ptgt, uint32_t* stat) {
    return give(native_request(kPyxDriver, trelm::detail::kTgtInfo, pdb, ptgt, sizeof *ptgt), stat);
}

uint32_t trelm_pyxnt_get_fcf_info(trelm_priv_db* pdb, cx_fcoe_fcf_info* pfcf, uint32_t* stat) {
    return give(native_request(kPyxDriver, trelm::detail::kFcfInfo, pdb, pfcf, sizeof *pfcf), stat);
}

uint32_t trelm_pyxnt_send_scsi_cmd(trelm_priv_db* pdb, cx_fcoe_scsi_cmd* pcmd, uint32_t* stat) {
    return give(native_send_scsi_cmd(kPyxDriver, pdb, pcmd), stat);
}

trelm_hw_info* trelm_pyxnt_get_hw_info_inst(const cx_fcoe_pci_info* pci_info) {
    return trelm::detail::find_hw_info(__func__, *pci_info);
}

trelm_priv_db* trelm_pyxnt_get_parent_port(const cx_fcoe_pci_info* pci_info) {
    return trelm::detail::find_parent(__func__, *pci_info);
}
