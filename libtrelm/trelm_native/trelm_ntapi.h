// trelm_ntapi.h - the transport to the native driver of the kron adapter family. Nothing here is guarded: a
// direct caller must keep other threads out of the library.
#pragma once

#include "port_records.h"
#include "trelm_driver_records.h"
#include "trelm_exported.h"
#include "vmkmgmt.h"

extern "C" {

extern TRELM_EXPORTED vmk_MgmtCallbackInfo kron_fcapi_callbacks[10];
extern TRELM_EXPORTED vmk_MgmtApiSignature kron_fcapi_sig;
extern TRELM_EXPORTED vmk_MgmtUserHandle kron_fcapi_handle;

// Adds the ports of the driver to the registry. On success *start_inst is the number of ports that were
// added.
TRELM_EXPORTED uint32_t trelmnt_find_all_instances(const char* driver_name, uint32_t* start_inst);
TRELM_EXPORTED uint32_t trelmnt_open_adapter(trelm_priv_db* pdb, uint32_t instance, uint32_t* papi_handle);
TRELM_EXPORTED uint32_t trelmnt_close_adapter(trelm_priv_db* pdb);

// *stat receives the status of the driver, or 10 if no memory was available for the request. The record of
// the caller is written only on success. A SCSI command with more than 16 CDB bytes, or one that moves more
// than 262144 bytes, is refused with status 4 and not sent.
TRELM_EXPORTED uint32_t trelmnt_get_port_info(trelm_priv_db* pdb, kronfc_port_info* port_info,
                                              uint32_t* stat);
TRELM_EXPORTED uint32_t trelmnt_get_port_stats(trelm_priv_db* pdb, kronfc_port_stats* pstats, uint32_t* stat);
TRELM_EXPORTED uint32_t trelmnt_get_tgt_info(trelm_priv_db* pdb, kronfc_tgt_info* ptgt, uint32_t* stat);
TRELM_EXPORTED uint32_t trelmnt_get_fcf_info(trelm_priv_db* pdb, kronfc_fcf_info* pfcf, uint32_t* stat);
TRELM_EXPORTED uint32_t trelmnt_send_scsi_cmd(trelm_priv_db* pdb, kronfc_scsi_cmd* pcmd, uint32_t* stat);

// Look-ups in the registry by PCI location.
TRELM_EXPORTED trelm_hw_info* trelmnt_get_hw_info_inst(const kronfc_pci_info* pci_info);
TRELM_EXPORTED trelm_priv_db* trelmnt_get_parent_port(const kronfc_pci_info* pci_info);

}  // extern "C"
