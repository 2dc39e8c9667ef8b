// The three transports, and which port uses which.

#include "transport.h"

#include <cerrno>

#include "trelm_mgmt.h"
#include "trelm_owners.h"

namespace trelm::detail {
namespace {

constexpr Transport kLegacy = {
    .driver = nullptr,
    .reports_mfw_version = false,
    .open_failed = "): open failed.",
    .close_failed = nullptr,
    .calling_port_info = nullptr,
    .calling_fcf_info = nullptr,
    .stats_alloc_failed = "): stats alloc failed.",
    .tgt_alloc_failed = "): ioctl tgt_info alloc failed.",
    .scsi_alloc_failed = "): cmd alloc failed.",
    .scsi_failed = "): scsi cmd ioctl failed, stat=",
};

constexpr Transport kKron = {
    .driver = &kKronDriver,
    .reports_mfw_version = true,
    .open_failed = "): native open failed.",
    .close_failed = "): native close failed.",
    .calling_port_info = "): callin native port info.",
    .calling_fcf_info = "): callin native fcf info.",
    .stats_alloc_failed = "): nqstats alloc failed.",
    .tgt_alloc_failed = "): native nqtgt_info alloc failed.",
    .scsi_alloc_failed = "): nqcmd alloc failed.",
    .scsi_failed = "): scsi cmd native failed, stat=",
};

constexpr Transport kPyx = {
    .driver = &kPyxDriver,
    .reports_mfw_version = false,
    .open_failed = "): native open failed.",
    .close_failed = "): native close failed.",
    .calling_port_info = nullptr,
    .calling_fcf_info = nullptr,
    .stats_alloc_failed = "): nstats alloc failed.",
    .tgt_alloc_failed = "): native ntgt_info alloc failed.",
    .scsi_alloc_failed = "): ncmd alloc failed.",
    .scsi_failed = "): scsi cmd PYX native failed, stat=",
};

bool is_kron_device(uint16_t device_id) { return (device_id & 0xFEFF) == 0x8080 || device_id == 0x165C; }

// Only the part of a native driver's answer that is used is copied.
constexpr size_t kPortInfoLookedAt = offsetof(dorfc_port_info, tgt_cnt) + sizeof(dorfc_port_info::tgt_cnt);
constexpr size_t kStatsLookedAt = offsetof(dorfc_port_stats, reserved);

// Sends one request through the open descriptor of the port.
template <class Record>
Outcome over_node(uint32_t (*request)(int32_t, trelm_priv_db*, Record*, uint32_t*), trelm_priv_db* pdb,
                  Record* record) {
    Outcome outcome;
    outcome.result = request(pdb->hw_info->oshandle, pdb, record, &outcome.stat);
    if (outcome.failed()) outcome.error = errno;
    return outcome;
}

// The legacy driver does not report the link state. Its link-state files do. Their reader gets a temporary
// record, because the record in the registry must be written as a whole.
uint32_t read_link_state(const trelm_priv_db& pdb) {
    trelm_priv_db port = {};
    port.wwpn = pdb.wwpn;
    trelm_get_dorfc_link_state(&port);
    return port.port_state;
}

}  // namespace

const Transport& transport_of(const trelm_hw_info* hw) {
    // Only the legacy discovery keeps a port without a PCI location. Such a port cannot be opened.
    if (!hw || hw->native_driver != 1) return kLegacy;
    return is_kron_device(hw->device_id) ? kKron : kPyx;
}

uint32_t open_port(const Transport& transport, trelm_priv_db* pdb, uint32_t instance, uint32_t* handle,
                   uint32_t* err) {
    if (transport.driver) return native_open_adapter(*transport.driver, pdb, instance, handle);
    const NoCancellation whole;
    return trelm_open_adapter(pdb, handle, err);
}

uint32_t close_port(const Transport& transport, trelm_priv_db* pdb, uint32_t* err) {
    if (transport.driver) return native_close_adapter(*transport.driver, pdb);
    const NoCancellation whole;
    return trelm_close_adapter(pdb, err);
}

Outcome ask_port_status(const Transport& transport, trelm_priv_db* pdb, PortStatus& status) {
    dorfc_port_info port;
    Outcome outcome;
    if (transport.driver) {
        outcome = native_request(*transport.driver, kPortInfo, pdb, &port, kPortInfoLookedAt);
    } else {
        port = {};
        outcome = over_node(trelm_get_port_info, pdb, &port);
    }
    if (outcome.failed()) return outcome;
    status = {.port_id = port.portid,
              .port_state = transport.driver ? port.link_state : read_link_state(*pdb),
              .port_sup_speed = port.port_sup_speed,
              .port_speed = port.port_speed,
              .tgt_cnt = port.tgt_cnt};
    return outcome;
}

uint32_t public_port_state(const Transport& transport, uint32_t port_state) {
    if (!transport.driver) return port_state;
    switch (port_state) {
        case FC_PORTSTATE_ONLINE:
            return TRELM_PORTSTATE_ONLINE;
        case FC_PORTSTATE_LINKDOWN:
            return TRELM_PORTSTATE_LINKDOWN;
        default:
            return TRELM_PORTSTATE_OTHER;
    }
}

Outcome ask_fcf_info(const Transport& transport, trelm_priv_db* pdb, dorfc_fcf_info* fcf) {
    return transport.driver ? native_request(*transport.driver, kFcfInfo, pdb, fcf, sizeof *fcf)
                            : over_node(trelm_get_fcf_info, pdb, fcf);
}

Outcome ask_port_stats(const Transport& transport, trelm_priv_db* pdb, dorfc_port_stats* stats) {
    return transport.driver ? native_request(*transport.driver, kPortStats, pdb, stats, kStatsLookedAt)
                            : over_node(trelm_get_port_stats, pdb, stats);
}

Outcome ask_tgt_info(const Transport& transport, trelm_priv_db* pdb, dorfc_tgt_info* tgt) {
    return transport.driver ? native_request(*transport.driver, kTgtInfo, pdb, tgt, sizeof *tgt)
                            : over_node(trelm_get_tgt_info, pdb, tgt);
}

Outcome send_scsi(const Transport& transport, trelm_priv_db* pdb, dorfc_scsi_cmd* cmd, uint8_t* data) {
    if (transport.driver) return native_exchange_scsi_cmd(*transport.driver, pdb, cmd, data);
    cmd->data_addr = trelm_ptr_to_64bit(data);
    return over_node(trelm_send_scsi_cmd, pdb, cmd);
}

}  // namespace trelm::detail

uint32_t trelm_xlate_err(uint32_t stat) {
    return stat >= 1 && stat <= 13 ? TRELM_STATUS_BASE + stat : TRELM_STATUS_DRIVER_ERROR;
}
