// discovery.h - what the discoveries of all drivers share: the supported devices, how a port gets its
// hardware record, and how answers of drivers become registry records.
#pragma once

#include <cstring>

#include "registry.h"
#include "trelm_dbg.h"

namespace trelm::detail {

// Whether the library serves ports of a PCI device with this id. The vendor id does not matter.
bool is_supported_device(uint16_t device_id);

// Copies a field that has the same name and width in a driver record and in a registry record.
#define TRELM_COPY(to, from, field)                            \
    do {                                                       \
        static_assert(sizeof(to).field == sizeof(from).field); \
        memcpy(&(to).field, &(from).field, sizeof(to).field);  \
    } while (0)

// All drivers' records have the legacy driver's layout up to `npiv_index`.
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

// The fields that have the same form in the records of all drivers.
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

// What became of a port that a driver reported.
enum class Added { kept, dropped, no_memory };

// Function names of a driver for its log lines.
struct DiscoveryNames {
    const char* find_all;
    const char* find_hw_info;
    const char* find_parent;
};

// Attaches a hardware record to a port. A virtual port gets the record of its physical port. A physical port
// gets a new record, which `fill` fills; it is removed if its device is not supported. `shown` is the number
// in the log messages.
template <class Fill>
Added attach_hardware(const DiscoveryNames& names, trelm_priv_db* pdb, const dorfc_pci_info& pci,
                      uint32_t shown, Fill fill) {
    if (!is_physical(*pdb)) {
        pdb->hw_info = find_hw_info(names.find_hw_info, pci);
        pdb->parent = find_parent(names.find_parent, pci);
        return Added::kept;
    }
    trelm_hw_info* hw = nullptr;
    if (trelm_alloc_hw_info_mem(&hw) != 0) {
        error(names.find_all, Piece(": inst=", shown, 16), " hw info mem alloc failed, exiting");
        return Added::no_memory;
    }
    fill(*hw);
    pdb->hw_info = hw;
    if (is_supported_device(hw->device_id)) return Added::kept;
    trelm_free_hw_info_element(hw);
    trelm_free_pdb_element(pdb);
    return Added::dropped;
}

}  // namespace trelm::detail
