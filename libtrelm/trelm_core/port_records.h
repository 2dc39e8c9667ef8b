// port_records.h - what the registry holds: a record for each port and one for each physical port's hardware.
#pragma once

#include <cstdint>

#include "trelm_driver_records.h"

extern "C" {

// One physical port, that is one PCI function. Its virtual ports share the record, and so the open state.
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
    trelm_hw_info* hw_info;  // null if the PCI location or the physical port is unknown
    trelm_priv_db* parent;   // the physical port of a virtual port; null if unknown
    char hba_name[32];
};

}  // extern "C"

namespace trelm::detail {

inline bool is_physical(const trelm_priv_db& pdb) { return pdb.port_type != FC_PORTTYPE_NPIV; }

// The handle in the log lines of a port.
inline uint32_t handle_of(const trelm_priv_db* pdb) {
    return pdb->hw_info ? __atomic_load_n(&pdb->hw_info->apihandle, __ATOMIC_RELAXED) : 0;
}
// Other threads look up handles at any time, so the handle is written after everything else that an open port
// needs.
inline void set_handle(trelm_hw_info& hw, uint32_t handle) {
    __atomic_store_n(&hw.apihandle, handle, __ATOMIC_RELEASE);
}

}  // namespace trelm::detail
