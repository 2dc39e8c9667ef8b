// discovery.h - what the discoveries of all drivers share: which devices are served, where a port belongs,
// and how a driver's answers become registry records.
#pragma once

#include <cstring>

#include "trelm_core.h"

namespace trelm::detail {

// Whether ports of a PCI device with this id are served. The vendor id does not matter.
bool is_supported_device(uint16_t device_id);

// The PCI-location look-ups of the registry, under the name that their caller logs.
trelm_hw_info* find_hw_info(const char* func_name, const dorfc_pci_info& at);
trelm_priv_db* find_parent(const char* func_name, const dorfc_pci_info& at);

// Fields of one name and width in a driver record and a registry record.
#define TRELM_COPY(to, from, field)                            \
    do {                                                       \
        static_assert(sizeof(to).field == sizeof(from).field); \
        memcpy(&(to).field, &(from).field, sizeof(to).field);  \
    } while (0)

// The drivers' records begin alike, so any of them can be read as the legacy driver's up to `npiv_index`.
inline void copy_port(trelm_priv_db& pdb, const dorfc_port_info& port) {
    pdb.port_id = port.portid;
    pdb.port_state = port.link_state;
    TRELM_COPY(pdb, port, wwnn);
    TRELM_COPY(pdb, port, wwpn);
    TRELM_COPY(pdb, port, port_type);
    TRELM_COPY(pdb, port, port_sup_speed);
    TRELM_COPY(pdb, port, port_speed);
    TRELM_COPY(pdb, port, mac);
    TRELM_COPY(pdb, port, tgt_cnt);
    TRELM_COPY(pdb, port, fcf_cnt);
    TRELM_COPY(pdb, port, mtu);
    TRELM_COPY(pdb, port, vlan);
    TRELM_COPY(pdb, port, npiv_index);
}

// All but what one driver alone knows or numbers in its own way.
inline void copy_hardware(trelm_hw_info& hw, const dorfc_port_info& port, const dorfc_pci_info& pci) {
    TRELM_COPY(hw, port, manufacturer);
    TRELM_COPY(hw, port, model_name);
    TRELM_COPY(hw, port, serial_num);
    TRELM_COPY(hw, port, driver_version);
    TRELM_COPY(hw, port, driver_date);
    TRELM_COPY(hw, port, driver_name);
    TRELM_COPY(hw, port, fw_version);
    TRELM_COPY(hw, port, npiv_count);
    TRELM_COPY(hw, pci, vendor_id);
    TRELM_COPY(hw, pci, device_id);
    hw.ssvendor_id = pci.subvendor_id;
    hw.ssdevice_id = pci.subsystem_id;
    hw.pci_domain = pci.domain_num;
    hw.pci_bus = pci.bus_num;
    hw.pci_dev = pci.device_num;
    hw.pci_func = pci.function_num;
    hw.pci_rev = pci.revision;
    TRELM_COPY(hw, pci, pcie_speed);
    TRELM_COPY(hw, pci, pcie_width);
    hw.driver_loaded = 1;
}

}  // namespace trelm::detail
