// legacy_driver.h - the transport to the legacy driver: its requests, discovery of its ports, and their link
// state.
//
// Nothing here is guarded: a direct caller must keep other threads out of the library.
#pragma once

#include <cstdint>

#include "port_records.h"
#include "trelm_driver_records.h"
#include "trelm_exported.h"

extern "C" {

TRELM_EXPORTED uint8_t trelm_charnode_exist(const char* charnode_name);
TRELM_EXPORTED uint32_t trelm_setup_ioctl_struct(uint16_t subcmd, void* resp_ptr, const trelm_priv_db* pdb,
                                                 dorfc_ioctl* pfcoe);
TRELM_EXPORTED uint32_t trelm_get_hba_count(int32_t handle, int32_t* hba_count);
TRELM_EXPORTED uint32_t trelm_get_hostno(trelm_priv_db* pdb, int32_t handle, uint32_t* host_no);
// `stat` receives the driver's status, on failure too.
TRELM_EXPORTED uint32_t trelm_get_port_info(int32_t handle, trelm_priv_db* pdb, dorfc_port_info* port_info,
                                            uint32_t* stat);
TRELM_EXPORTED uint32_t trelm_get_pci_info(int32_t handle, trelm_priv_db* pdb, dorfc_pci_info* pci_info,
                                           uint32_t* stat);
TRELM_EXPORTED uint32_t trelm_get_port_stats(int32_t handle, trelm_priv_db* pdb, dorfc_port_stats* pstats,
                                             uint32_t* stat);
TRELM_EXPORTED uint32_t trelm_get_tgt_info(int32_t handle, trelm_priv_db* pdb, dorfc_tgt_info* ptgt,
                                           uint32_t* stat);
TRELM_EXPORTED uint32_t trelm_get_fcf_info(int32_t handle, trelm_priv_db* pdb, dorfc_fcf_info* pfcf,
                                           uint32_t* stat);
TRELM_EXPORTED uint32_t trelm_send_scsi_cmd(int32_t handle, trelm_priv_db* pdb, dorfc_scsi_cmd* pcmd,
                                            uint32_t* stat);
TRELM_EXPORTED uint32_t trelm_open_adapter(trelm_priv_db* pdb, uint32_t* papi_handle, uint32_t* pret_err);
TRELM_EXPORTED uint32_t trelm_close_adapter(trelm_priv_db* pdb, uint32_t* perr);

TRELM_EXPORTED uint32_t trelm_find_all_instances(const char* driver_name, uint32_t* start_inst);
TRELM_EXPORTED void trelm_get_dorfc_link_state(trelm_priv_db* pdb);
TRELM_EXPORTED uint32_t trelm_read_directory(const char* pth, char (*file_names)[32], uint32_t* count);
TRELM_EXPORTED uint32_t trelm_read_file_for_link(const char* filename, trelm_priv_db* pdb);

}  // extern "C"
