// The three transports as tables, and the rule that chooses between them.

#include "trelm_mgmt/transport.h"

#include <cerrno>

#include "trelm_native.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace {

using trelm::detail::Outcome;
using trelm::detail::scsi_cmd_record;

// ---- Legacy

// One request over the port's open descriptor.
template <auto request, class Record>
Outcome over_node(trelm_priv_db* pdb, Record* record) {
    Outcome outcome = {};
    outcome.result = request(pdb->hw_info->oshandle, pdb, record, &outcome.stat);
    return outcome;
}

Outcome legacy_send_scsi(trelm_priv_db* pdb, scsi_cmd_record* cmd, uint8_t* data) {
    cmd->legacy.data_addr = trelm_ptr_to_64bit(data);
    return over_node<trelm_send_scsi_cmd>(pdb, &cmd->legacy);
}

uint32_t legacy_open(trelm_priv_db* pdb, uint32_t, uint32_t* handle, uint32_t* err) {
    return trelm_open_adapter(pdb, handle, err);
}

// The link-state reader has put the public value there already.
uint32_t legacy_port_state(uint32_t port_state) { return port_state; }

// ---- Native

// Of the driver's answer only the beginning that is looked at is copied.
template <const trelm::detail::native_driver& driver, trelm::detail::native_operation operation,
          size_t looked_at, class Record>
Outcome over_callback(trelm_priv_db* pdb, Record* record) {
    static_assert(looked_at <= sizeof(Record));
    Outcome outcome = {};
    outcome.result = trelm::detail::native_request(driver, operation, pdb, record, looked_at, &outcome.stat);
    return outcome;
}

constexpr size_t kPortInfoLookedAt = offsetof(dorfc_port_info, tgt_cnt) + sizeof(dorfc_port_info::tgt_cnt);
constexpr size_t kStatsLookedAt = offsetof(dorfc_port_stats, reserved);

template <const trelm::detail::native_driver& driver>
Outcome native_send_scsi(trelm_priv_db* pdb, scsi_cmd_record* cmd, uint8_t* data) {
    Outcome outcome = {};
    outcome.result = trelm::detail::native_exchange_scsi_cmd(driver, pdb, &cmd->native, data, &outcome.stat);
    return outcome;
}

template <auto open>
uint32_t native_open(trelm_priv_db* pdb, uint32_t instance, uint32_t* handle, uint32_t*) {
    return open(pdb, instance, handle);
}

template <auto close>
uint32_t native_close(trelm_priv_db* pdb, uint32_t*) {
    return close(pdb);
}

uint32_t native_port_state(uint32_t port_state) {
    switch (port_state) {
        case FC_PORTSTATE_ONLINE:
            return TRELM_PORTSTATE_ONLINE;
        case FC_PORTSTATE_LINKDOWN:
            return TRELM_PORTSTATE_LINKDOWN;
        default:
            return TRELM_PORTSTATE_OTHER;
    }
}

// ---- All

void no_further_source(trelm_priv_db*) {}

// Whether a driver gets the caller's own record, or one whose answer overwrites all of it.
enum class Sees { kRecord, kCopy };

// `request` reads a port information record; `then` corrects what the driver's own answer does not tell.
template <auto request, class Record, Sees driver_sees, void (*then)(trelm_priv_db*)>
Outcome refresh_port(trelm_priv_db* pdb) {
    Record port;
    if (driver_sees == Sees::kRecord) port = {};
    const Outcome outcome = request(pdb, &port);
    if (outcome.failed()) return outcome;
    pdb->port_id = port.portid;
    pdb->port_state = port.link_state;
    pdb->port_sup_speed = port.port_sup_speed;
    pdb->port_speed = port.port_speed;
    pdb->tgt_cnt = port.tgt_cnt;
    then(pdb);
    return outcome;
}

constexpr trelm::detail::Transport kLegacy = {
    .open = legacy_open,
    .close = trelm_close_adapter,
    .open_failed = "): open failed.",
    .close_failed = nullptr,
    .refresh_port = refresh_port<over_node<trelm_get_port_info, dorfc_port_info>, dorfc_port_info,
                                 Sees::kRecord, trelm_get_dorfc_link_state>,
    .fcf_info = over_node<trelm_get_fcf_info, dorfc_fcf_info>,
    .port_stats = over_node<trelm_get_port_stats, dorfc_port_stats>,
    .tgt_info = over_node<trelm_get_tgt_info, dorfc_tgt_info>,
    .calling_port_info = nullptr,
    .calling_fcf_info = nullptr,
    .stats_alloc_failed = "): stats alloc failed.",
    .tgt_alloc_failed = "): ioctl tgt_info alloc failed.",
    .send_scsi = legacy_send_scsi,
    .native = false,
    .scsi_alloc_failed = "): cmd alloc failed.",
    .scsi_failed = "): scsi cmd ioctl failed, stat=",
    .public_port_state = legacy_port_state,
    .reports_mfw_version = false,
};

// What the native drivers do not share.
struct NativeTexts {
    const char* calling_port_info;
    const char* calling_fcf_info;
    const char* stats_alloc_failed;
    const char* tgt_alloc_failed;
    const char* scsi_alloc_failed;
    const char* scsi_failed;
    bool reports_mfw_version;
};

template <const trelm::detail::native_driver& driver, auto open, auto close, class PortInfo>
constexpr trelm::detail::Transport native_transport(const NativeTexts& own) {
    return {
        .open = native_open<open>,
        .close = native_close<close>,
        .open_failed = "): native open failed.",
        .close_failed = "): native close failed.",
        .refresh_port =
            refresh_port<over_callback<driver, trelm::detail::kPortInfo, kPortInfoLookedAt, PortInfo>,
                         PortInfo, Sees::kCopy, no_further_source>,
        .fcf_info = over_callback<driver, trelm::detail::kFcfInfo, sizeof(dorfc_fcf_info), dorfc_fcf_info>,
        .port_stats = over_callback<driver, trelm::detail::kPortStats, kStatsLookedAt, dorfc_port_stats>,
        .tgt_info = over_callback<driver, trelm::detail::kTgtInfo, sizeof(dorfc_tgt_info), dorfc_tgt_info>,
        .calling_port_info = own.calling_port_info,
        .calling_fcf_info = own.calling_fcf_info,
        .stats_alloc_failed = own.stats_alloc_failed,
        .tgt_alloc_failed = own.tgt_alloc_failed,
        .send_scsi = native_send_scsi<driver>,
        .native = true,
        .scsi_alloc_failed = own.scsi_alloc_failed,
        .scsi_failed = own.scsi_failed,
        .public_port_state = native_port_state,
        .reports_mfw_version = own.reports_mfw_version,
    };
}

constexpr trelm::detail::Transport kKron = native_transport<trelm::detail::kron_driver, trelmnt_open_adapter,
                                                            trelmnt_close_adapter, kronfc_port_info>({
    .calling_port_info = "): callin native port info.",
    .calling_fcf_info = "): callin native fcf info.",
    .stats_alloc_failed = "): nqstats alloc failed.",
    .tgt_alloc_failed = "): native nqtgt_info alloc failed.",
    .scsi_alloc_failed = "): nqcmd alloc failed.",
    .scsi_failed = "): scsi cmd native failed, stat=",
    .reports_mfw_version = true,
});

constexpr trelm::detail::Transport kPyx =
    native_transport<trelm::detail::pyx_driver, trelm_pyxnt_open_adapter, trelm_pyxnt_close_adapter,
                     cx_fcoe_port_info>({
        .calling_port_info = nullptr,
        .calling_fcf_info = nullptr,
        .stats_alloc_failed = "): nstats alloc failed.",
        .tgt_alloc_failed = "): native ntgt_info alloc failed.",
        .scsi_alloc_failed = "): ncmd alloc failed.",
        .scsi_failed = "): scsi cmd PYX native failed, stat=",
        .reports_mfw_version = false,
    });

bool is_kron_device(uint16_t device_id) { return (device_id & 0xFEFF) == 0x8080 || device_id == 0x165C; }

}  // namespace

const trelm::detail::Transport& trelm::detail::transport_of(const trelm_hw_info* hw) {
    // Only the legacy driver's discovery keeps a port whose PCI location it could not read; such a port
    // cannot be opened.
    if (!hw || hw->native_driver != 1) return kLegacy;
    return is_kron_device(hw->device_id) ? kKron : kPyx;
}

uint32_t trelm::detail::fail_call(const char* func, uint32_t handle, Piece text, uint32_t status) {
    error_call(func, handle, text);
    return status;
}

uint32_t trelm::detail::fail_request(const char* func, uint32_t handle, const char* text, Outcome outcome) {
    const int err = errno;
    error(func, Piece("(", handle), Piece(text, outcome.stat), Piece(" errno=", err));
    return trelm_xlate_err(outcome.stat);
}

uint32_t trelm_xlate_err(uint32_t stat) {
    return stat >= 1 && stat <= 13 ? TRELM_STATUS_BASE + stat : TRELM_STATUS_DRIVER_ERROR;
}
