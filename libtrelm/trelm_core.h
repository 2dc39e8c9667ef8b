// trelm_core.h - the heart of the library: process-wide state, the registry of ports, load and unload, the
// database shared between processes, semaphores, and the transport to the legacy driver.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "trelm_dlist.h"
#include "trelm_driver_records.h"
#include "trelm_mgmt.h"

extern "C" {

// ---- Registry records

// One physical port, that is one PCI function. A physical port and its virtual ports share it, and with it
// the open state.
struct trelm_hw_info {
    char phys_path[256];  // the legacy driver's character node; empty for native drivers
    int32_t oshandle;     // its descriptor while open, else -1
    uint32_t apihandle;   // instance + 1 while open, else 0
    uint32_t open_cnt;
    char manufacturer[64];
    char model_name[32];
    char model_desc[128];
    char serial_num[32];
    char driver_version[32];
    char driver_date[32];
    char driver_name[16];
    uint8_t driver_loaded;
    char fw_version[32];
    uint16_t vendor_id;
    uint16_t device_id;
    uint16_t ssvendor_id;
    uint16_t ssdevice_id;
    uint16_t pci_domain;
    uint16_t pci_bus;
    uint16_t pci_dev;
    uint16_t pci_func;
    uint16_t pci_rev;
    uint32_t npiv_count;
    uint8_t phy_port_number;  // from 1
    uint32_t pcie_speed;
    uint32_t pcie_width;
    uint32_t chip_rev_id;
    uint32_t mfw_version;
    uint8_t native_driver;  // 0 legacy ioctl driver, 1 native management-interface driver
};

// One physical or virtual port.
struct trelm_priv_db {
    uint32_t drvr_inst;  // the driver's own index of the port
    uint32_t host_no;    // SCSI host number
    uint64_t wwnn;
    uint64_t wwpn;
    uint32_t port_id;
    uint16_t port_type;  // fc_port_type
    uint32_t port_state;
    uint16_t port_sup_speed;
    uint16_t port_speed;
    uint8_t mac[6];
    uint32_t tgt_cnt;
    uint32_t fcf_cnt;
    uint32_t mtu;
    uint32_t vlan;
    uint32_t npiv_index;
    trelm_hw_info* hw_info;  // null where the PCI location or the physical port is unknown
    trelm_priv_db* parent;   // of a virtual port, where it was found
    char hba_name[32];
};

// ---- Process-wide state

extern TRELM_API uint8_t trelm_os_type;                      // 0 not yet tested, 1 ESXi, 2 another system
extern TRELM_API trelm_dlist* trelm_priv_database;           // port records; null when there are none
extern TRELM_API trelm_dlist* trelm_phy_info;                // hardware records
extern TRELM_API int32_t trelm_db_sem_id;                    // -1 none
extern TRELM_API int32_t trelm_dbg_sem_id;                   // -1 none
extern TRELM_API int32_t trelm_shm_fildes;                   // -1 none
extern TRELM_API struct trelm_shared_db* trelm_shared_data;  // the mapped file, or null
extern TRELM_API uint8_t trelm_library_instance;             // slot 0 to 7; 255 before one was taken
extern TRELM_API uint8_t trelm_use_db;  // for programs that look at it; nothing here does
extern TRELM_API key_t trelm_db_semkey;
extern TRELM_API key_t trelm_dbg_semkey;
extern TRELM_API const char trelm_db_fname[];
extern TRELM_API const char* const trelm_api_version;

// ---- Load and unload

TRELM_API uint32_t trelm_load_lib(void);
TRELM_API uint32_t trelm_unload_lib(void);
TRELM_API void trelm_cleanup_hbas(void);
TRELM_API void trelm_check_esx(void);
// Reads TRELM_API_DEBUG into trelm_debug and gets the log's semaphore when output is first switched on.
TRELM_API void trelm_set_debug_level(void);

// ---- Registry

// A new record goes behind its list's cursor. On failure the whole list is released.
TRELM_API uint32_t trelm_alloc_pdb_mem(trelm_priv_db** pdb);
TRELM_API uint32_t trelm_alloc_hw_info_mem(trelm_hw_info** hw);
TRELM_API void trelm_free_pdb_element(trelm_priv_db* pdb);
TRELM_API void trelm_free_hw_info_element(trelm_hw_info* hw);
TRELM_API void trelm_free_all_pdb_mem(void);
TRELM_API void trelm_free_all_hw_info_mem(void);

// Look-ups leave their list's cursor on what they found, or on the sentinel.
TRELM_API trelm_priv_db* trelm_get_pdb_from_user_instance(uint32_t instance);
TRELM_API uint32_t trelm_get_instance_from_pdb(trelm_priv_db* pdb, uint32_t* instance);
TRELM_API trelm_priv_db* trelm_get_pdb_from_user_handle(uint32_t handle);
TRELM_API trelm_priv_db* trelm_get_vn_pdb_from_user_handle(uint32_t handle, uint32_t npiv_index);
TRELM_API trelm_hw_info* trelm_get_hw_info_inst(const dorfc_pci_info* pci_info);
TRELM_API trelm_priv_db* trelm_get_parent_port(const dorfc_pci_info* pci_info);

struct trelm_device_info {
    uint16_t vendor_id;
    uint16_t device_id;
    uint16_t ssvendor_id;
    uint16_t ssdevice_id;
};
extern TRELM_API const trelm_device_info trelm_quad_port_zr_list[9];  // the last row ends it
// 0 when the adapter is in the quad-port table.
TRELM_API uint32_t trelm_is_quad_port_zr(const trelm_hw_info* hw);

TRELM_API void trelm_print_priv_data(const trelm_priv_db* pdb);
// dst[i] = src[size - 1 - i]
TRELM_API void trelm_revcpy(void* dst, const void* src, size_t size);
TRELM_API uint64_t trelm_ptr_to_64bit(const void* address);
TRELM_API void* trelm_64bit_to_ptr(uint64_t address);

// ---- Database shared between processes

TRELM_API uint32_t trelm_open_database(int32_t* ret_handle);
TRELM_API uint32_t trelm_close_database(int32_t fildes);
// Processes that have the library loaded; 0 when that cannot be told.
TRELM_API uint8_t trelm_get_total_libinst_count(void);

// ---- Semaphores

TRELM_API int trelm_sem_wait(int32_t sem_id);
TRELM_API int trelm_sem_signal(int32_t sem_id);

// ---- Legacy driver

TRELM_API uint8_t trelm_charnode_exist(const char* charnode_name);
TRELM_API uint32_t trelm_setup_ioctl_struct(uint16_t subcmd, void* resp_ptr, const trelm_priv_db* pdb,
                                            dorfc_ioctl* pfcoe);
TRELM_API uint32_t trelm_get_hba_count(int32_t handle, int32_t* hba_count);
TRELM_API uint32_t trelm_get_hostno(trelm_priv_db* pdb, int32_t handle, uint32_t* host_no);
// `stat` receives the driver's status, on failure too.
TRELM_API uint32_t trelm_get_port_info(int32_t handle, trelm_priv_db* pdb, dorfc_port_info* port_info,
                                       uint32_t* stat);
TRELM_API uint32_t trelm_get_pci_info(int32_t handle, trelm_priv_db* pdb, dorfc_pci_info* pci_info,
                                      uint32_t* stat);
TRELM_API uint32_t trelm_get_port_stats(int32_t handle, trelm_priv_db* pdb, dorfc_port_stats* pstats,
                                        uint32_t* stat);
TRELM_API uint32_t trelm_get_tgt_info(int32_t handle, trelm_priv_db* pdb, dorfc_tgt_info* ptgt,
                                      uint32_t* stat);
TRELM_API uint32_t trelm_get_fcf_info(int32_t handle, trelm_priv_db* pdb, dorfc_fcf_info* pfcf,
                                      uint32_t* stat);
TRELM_API uint32_t trelm_send_scsi_cmd(int32_t handle, trelm_priv_db* pdb, dorfc_scsi_cmd* pcmd,
                                       uint32_t* stat);
TRELM_API uint32_t trelm_open_adapter(trelm_priv_db* pdb, uint32_t* papi_handle, uint32_t* pret_err);
TRELM_API uint32_t trelm_close_adapter(trelm_priv_db* pdb, uint32_t* perr);

TRELM_API uint32_t trelm_find_all_instances(const char* driver_name, uint32_t* start_inst);
TRELM_API void trelm_get_dorfc_link_state(trelm_priv_db* pdb);
TRELM_API uint32_t trelm_read_directory(const char* pth, char (*file_names)[32], uint32_t* count);
TRELM_API uint32_t trelm_read_file_for_link(const char* filename, trelm_priv_db* pdb);

}  // extern "C"

namespace trelm::detail {

// Semaphores private to the core: the set of the key, created free where there is none or another user's, or -1;
// and its removal.
int32_t sem_get(key_t key);
int sem_del(int32_t sem_id);
// Without a line on failure, for the log's own use.
int sem_wait_unlogged(int32_t sem_id);
int sem_signal_unlogged(int32_t sem_id);

// Whether the shared database is open in this process, which with a port list is what 'loaded' means.
bool database_is_open();
// Whether it is open because this process is a forked child of the one that opened it. The child has no slot of its
// own, and leaves its parent's alone.
bool database_is_inherited();

// What a port's log lines carry as its handle.
inline uint32_t handle_of(const trelm_priv_db* pdb) {
    return pdb->hw_info ? __atomic_load_n(&pdb->hw_info->apihandle, __ATOMIC_RELAXED) : 0;
}
// Other threads look it up at any time. What belongs to an open port is written before, so that they see it.
inline void set_handle(trelm_hw_info& hw, uint32_t handle) {
    __atomic_store_n(&hw.apihandle, handle, __ATOMIC_RELEASE);
}

// Of a port list that is there.
uint32_t count_physical_ports();

// Empties the whole registry, ports first: hardware records outlive what refers to them.
void release_registry();

}  // namespace trelm::detail
