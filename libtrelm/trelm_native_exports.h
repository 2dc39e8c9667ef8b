// trelm_native_exports.h - the exported functions of a native transport, declared and defined for a prefix:
// the two transports export the same functions under names and record names of their own.
#pragma once

#include "trelm_core.h"
#include "vmkmgmt.h"

// find_all_instances adds the driver's ports to the registry; on success *start_inst is how many were added.
// The data operations give the driver's status in *stat, or 10 when the request could not be allocated, and
// write the caller's record on success alone. send_scsi_cmd refuses more than 16 CDB bytes or 262144 data
// bytes with status 4 and sends nothing.
#define TRELM_DECLARE_NATIVE_TRANSPORT(prefix, records)                                                      \
    TRELM_API uint32_t prefix##_find_all_instances(const char* driver_name, uint32_t* start_inst);           \
    TRELM_API uint32_t prefix##_open_adapter(trelm_priv_db* pdb, uint32_t instance, uint32_t* papi_handle);  \
    TRELM_API uint32_t prefix##_close_adapter(trelm_priv_db* pdb);                                           \
    TRELM_API uint32_t prefix##_get_port_info(trelm_priv_db* pdb, records##_port_info* port_info,            \
                                              uint32_t* stat);                                               \
    TRELM_API uint32_t prefix##_get_port_stats(trelm_priv_db* pdb, records##_port_stats* pstats,             \
                                               uint32_t* stat);                                              \
    TRELM_API uint32_t prefix##_get_tgt_info(trelm_priv_db* pdb, records##_tgt_info* ptgt, uint32_t* stat);  \
    TRELM_API uint32_t prefix##_get_fcf_info(trelm_priv_db* pdb, records##_fcf_info* pfcf, uint32_t* stat);  \
    TRELM_API uint32_t prefix##_send_scsi_cmd(trelm_priv_db* pdb, records##_scsi_cmd* pcmd, uint32_t* stat); \
    TRELM_API trelm_hw_info* prefix##_get_hw_info_inst(const records##_pci_info* pci_info);                  \
    TRELM_API trelm_priv_db* prefix##_get_parent_port(const records##_pci_info* pci_info)

// The names that the functions log, for the driver's description.
#define TRELM_NATIVE_NAMES(prefix)                                                                    \
    .find_all_name = #prefix "_find_all_instances", .find_hw_info_name = #prefix "_get_hw_info_inst", \
    .find_parent_name = #prefix "_get_parent_port", .open_name = #prefix "_open_adapter",             \
    .close_name = #prefix "_close_adapter",                                                           \
    .operation_names = {#prefix "_get_port_info", #prefix "_get_port_stats", #prefix "_get_tgt_info", \
                        #prefix "_get_fcf_info", #prefix "_send_scsi_cmd"}

#define TRELM_DEFINE_NATIVE_TRANSPORT(prefix, records, driver)                                               \
    uint32_t prefix##_find_all_instances(const char*, uint32_t* start_inst) {                                \
        return trelm::detail::native_find_all_instances(driver, start_inst);                                 \
    }                                                                                                        \
    uint32_t prefix##_open_adapter(trelm_priv_db* pdb, uint32_t instance, uint32_t* papi_handle) {           \
        return trelm::detail::native_open_adapter(driver, pdb, instance, papi_handle);                       \
    }                                                                                                        \
    uint32_t prefix##_close_adapter(trelm_priv_db* pdb) {                                                    \
        return trelm::detail::native_close_adapter(driver, pdb);                                             \
    }                                                                                                        \
    uint32_t prefix##_get_port_info(trelm_priv_db* pdb, records##_port_info* port_info, uint32_t* stat) {    \
        return trelm::detail::native_request(driver, trelm::detail::kPortInfo, pdb, port_info,               \
                                             sizeof *port_info, stat);                                       \
    }                                                                                                        \
    uint32_t prefix##_get_port_stats(trelm_priv_db* pdb, records##_port_stats* pstats, uint32_t* stat) {     \
        return trelm::detail::native_request(driver, trelm::detail::kPortStats, pdb, pstats, sizeof *pstats, \
                                             stat);                                                          \
    }                                                                                                        \
    uint32_t prefix##_get_tgt_info(trelm_priv_db* pdb, records##_tgt_info* ptgt, uint32_t* stat) {           \
        return trelm::detail::native_request(driver, trelm::detail::kTgtInfo, pdb, ptgt, sizeof *ptgt,       \
                                             stat);                                                          \
    }                                                                                                        \
    uint32_t prefix##_get_fcf_info(trelm_priv_db* pdb, records##_fcf_info* pfcf, uint32_t* stat) {           \
        return trelm::detail::native_request(driver, trelm::detail::kFcfInfo, pdb, pfcf, sizeof *pfcf,       \
                                             stat);                                                          \
    }                                                                                                        \
    uint32_t prefix##_send_scsi_cmd(trelm_priv_db* pdb, records##_scsi_cmd* pcmd, uint32_t* stat) {          \
        return trelm::detail::native_send_scsi_cmd(driver, pdb, pcmd, stat);                                 \
    }                                                                                                        \
    trelm_hw_info* prefix##_get_hw_info_inst(const records##_pci_info* pci_info) {                           \
        return trelm::detail::find_hw_info((driver).find_hw_info_name, *pci_info);                           \
    }                                                                                                        \
    trelm_priv_db* prefix##_get_parent_port(const records##_pci_info* pci_info) {                            \
        return trelm::detail::find_parent((driver).find_parent_name, *pci_info);                             \
    }
