// The trace dump of a port record and its hardware record, one line per field.

#include <cstring>

#include "registry.h"
#include "trelm_dbg.h"

namespace {

struct Row {
    Row(const char* words, const char* value, size_t room) : label(words), text(value), width(room) {}
    Row(const char* words, uint64_t value, uint8_t base) : label(words), number(value), radix(base) {}

    const char* label;
    const char* text = nullptr;  // of fixed width; terminated only if it is shorter
    size_t width = 0;
    uint64_t number = 0;
    uint8_t radix = 0;
};

void print(const Row& row) {
    if (!row.text)
        return trelm::detail::trace(nullptr, trelm::detail::Piece(row.label, row.number, row.radix));
    char terminated[sizeof trelm_hw_info::phys_path + 1] = {};
    memcpy(terminated, row.text, strnlen(row.text, row.width));
    trelm::detail::trace(nullptr, row.label, terminated);
}

template <size_t Count>
void print_all(const Row (&rows)[Count]) {
    for (const Row& row : rows) print(row);
}

#define TRELM_TEXT_ROW(record, field) \
    Row { " " #field ": ", (record).field, sizeof(record).field }
#define TRELM_HEX_ROW(record, field) \
    Row { " " #field ": ", (record).field, 16 }
#define TRELM_DECIMAL_ROW(record, field) \
    Row { " " #field ": ", (record).field, 10 }

void print_path(const trelm_hw_info& hw) { print(TRELM_TEXT_ROW(hw, phys_path)); }

void print_address(const trelm_priv_db& pdb) {
    print_all({TRELM_DECIMAL_ROW(pdb, drvr_inst), TRELM_DECIMAL_ROW(pdb, host_no), TRELM_HEX_ROW(pdb, wwnn),
               TRELM_HEX_ROW(pdb, wwpn), TRELM_HEX_ROW(pdb, port_id)});
}

void print_hardware(const trelm_hw_info& hw) {
    print_all({TRELM_TEXT_ROW(hw, manufacturer),   TRELM_TEXT_ROW(hw, model_name),
               TRELM_TEXT_ROW(hw, model_desc),     TRELM_TEXT_ROW(hw, serial_num),
               TRELM_TEXT_ROW(hw, driver_version), TRELM_TEXT_ROW(hw, driver_date),
               TRELM_TEXT_ROW(hw, driver_name),    TRELM_HEX_ROW(hw, driver_loaded),
               TRELM_TEXT_ROW(hw, fw_version),     TRELM_HEX_ROW(hw, vendor_id),
               TRELM_HEX_ROW(hw, device_id),       TRELM_HEX_ROW(hw, ssvendor_id),
               TRELM_HEX_ROW(hw, ssdevice_id),     TRELM_HEX_ROW(hw, pci_domain),
               TRELM_HEX_ROW(hw, pci_bus),         TRELM_HEX_ROW(hw, pci_dev),
               TRELM_HEX_ROW(hw, pci_func),        TRELM_HEX_ROW(hw, pci_rev),
               TRELM_HEX_ROW(hw, npiv_count),      Row(" phy port_number: ", hw.phy_port_number, 16)});
}

void print_port(const trelm_priv_db& pdb) {
    print_all({TRELM_HEX_ROW(pdb, port_type), TRELM_HEX_ROW(pdb, port_state),
               TRELM_HEX_ROW(pdb, port_sup_speed), TRELM_HEX_ROW(pdb, port_speed),
               TRELM_HEX_ROW(pdb, tgt_cnt), TRELM_HEX_ROW(pdb, fcf_cnt), TRELM_DECIMAL_ROW(pdb, mtu),
               TRELM_DECIMAL_ROW(pdb, vlan), TRELM_DECIMAL_ROW(pdb, npiv_index)});
}

}  // namespace

void trelm_print_priv_data(const trelm_priv_db* pdb) {
    if (!trelm::detail::logs(trelm::detail::kTrace)) return;
    trelm::detail::trace(nullptr, " API Private Data:");
    if (pdb->hw_info) print_path(*pdb->hw_info);
    print_address(*pdb);
    if (pdb->hw_info) print_hardware(*pdb->hw_info);
    print_port(*pdb);
}
