// registry.h - the ports of the host as discovery found them: two lists of records, and look-ups.
//
// Nothing here is guarded: a direct caller must keep other threads out of the library.
#pragma once

#include <cstddef>
#include <cstdint>

#include "port_records.h"
#include "trelm_dlist.h"
#include "trelm_driver_records.h"
#include "trelm_exported.h"

extern "C" {

extern TRELM_EXPORTED trelm_dlist* trelm_priv_database;  // port records; null when there are none
extern TRELM_EXPORTED trelm_dlist* trelm_phy_info;       // hardware records

// Inserts a zeroed record after the list's cursor. On failure the whole list is released.
TRELM_EXPORTED uint32_t trelm_alloc_pdb_mem(trelm_priv_db** pdb);
TRELM_EXPORTED uint32_t trelm_alloc_hw_info_mem(trelm_hw_info** hw);
TRELM_EXPORTED void trelm_free_pdb_element(trelm_priv_db* pdb);
TRELM_EXPORTED void trelm_free_hw_info_element(trelm_hw_info* hw);
TRELM_EXPORTED void trelm_free_all_pdb_mem(void);
TRELM_EXPORTED void trelm_free_all_hw_info_mem(void);

// Look-ups set the list's cursor to the record that they return, or to the sentinel.
TRELM_EXPORTED trelm_priv_db* trelm_get_pdb_from_user_instance(uint32_t instance);
TRELM_EXPORTED uint32_t trelm_get_instance_from_pdb(trelm_priv_db* pdb, uint32_t* instance);
TRELM_EXPORTED trelm_priv_db* trelm_get_pdb_from_user_handle(uint32_t handle);
TRELM_EXPORTED trelm_priv_db* trelm_get_vn_pdb_from_user_handle(uint32_t handle, uint32_t npiv_index);
TRELM_EXPORTED trelm_hw_info* trelm_get_hw_info_inst(const dorfc_pci_info* pci_info);
TRELM_EXPORTED trelm_priv_db* trelm_get_parent_port(const dorfc_pci_info* pci_info);

struct trelm_device_info {
    uint16_t vendor_id;
    uint16_t device_id;
    uint16_t ssvendor_id;
    uint16_t ssdevice_id;
};
extern TRELM_EXPORTED const trelm_device_info trelm_quad_port_zr_list[9];  // the last row ends it
// 0 if the adapter is in the quad-port table, else 1.
TRELM_EXPORTED uint32_t trelm_is_quad_port_zr(const trelm_hw_info* hw);

TRELM_EXPORTED void trelm_print_priv_data(const trelm_priv_db* pdb);
// dst[i] = src[size - 1 - i]
TRELM_EXPORTED void trelm_revcpy(void* dst, const void* src, size_t size);
TRELM_EXPORTED uint64_t trelm_ptr_to_64bit(const void* address);
TRELM_EXPORTED void* trelm_64bit_to_ptr(uint64_t address);

}  // extern "C"

namespace trelm::detail {

// The look-ups by PCI location, under the name that their caller logs.
trelm_hw_info* find_hw_info(const char* func_name, const dorfc_pci_info& at);
trelm_priv_db* find_parent(const char* func_name, const dorfc_pci_info& at);

// The port list must exist.
uint32_t count_physical_ports();

// The log line of a function of a driver that gets no port record.
inline constexpr char kNoRecord[] = ": pdb not found, exiting";

// Releases both lists, ports first, because they refer to hardware records.
void release_registry();

}  // namespace trelm::detail
