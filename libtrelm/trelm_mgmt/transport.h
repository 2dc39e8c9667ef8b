// transport.h - which driver serves a port, and what the public functions ask of it. The functions read as
// their algorithms and know no driver.
#pragma once

#include "trelm_core.h"
#include "trelm_native.h"

namespace trelm::detail {

// What the three drivers do not share.
struct Transport {
    const NativeDriver* driver;  // null: the legacy driver
    bool reports_mfw_version;
    // What the public functions log.
    const char* open_failed;
    const char* close_failed;       // null: nothing
    const char* calling_port_info;  // null: nothing
    const char* calling_fcf_info;
    const char* stats_alloc_failed;
    const char* tgt_alloc_failed;
    const char* scsi_alloc_failed;
    const char* scsi_failed;
};

// The transport that serves the ports of a hardware record.
const Transport& transport_of(const trelm_hw_info* hw);

// Both return 0, or something else and the system's error number if there is one.
uint32_t open_port(const Transport& transport, trelm_priv_db* pdb, uint32_t instance, uint32_t* handle,
                   uint32_t* err);
uint32_t close_port(const Transport& transport, trelm_priv_db* pdb, uint32_t* err);

// What a port's driver tells of it at any time.
struct PortStatus {
    uint32_t port_id;
    uint32_t port_state;  // a public value with the legacy driver, else the driver's
    uint16_t port_sup_speed;
    uint16_t port_speed;
    uint32_t tgt_cnt;
};
Outcome ask_port_status(const Transport& transport, trelm_priv_db* pdb, PortStatus& status);
uint32_t public_port_state(const Transport& transport, uint32_t port_state);

// These fill the record on success. The legacy driver gets this very record and may find it as it is.
Outcome ask_fcf_info(const Transport& transport, trelm_priv_db* pdb, dorfc_fcf_info* fcf);
Outcome ask_port_stats(const Transport& transport, trelm_priv_db* pdb, dorfc_port_stats* stats);
Outcome ask_tgt_info(const Transport& transport, trelm_priv_db* pdb, dorfc_tgt_info* tgt);

// Sends the command; `data` is the caller's buffer of cmd's data_len bytes. A read leaves its data there on
// success.
Outcome send_scsi(const Transport& transport, trelm_priv_db* pdb, dorfc_scsi_cmd* cmd, uint8_t* data);

}  // namespace trelm::detail

extern "C" {

// A driver status as a return code: 1 to 13 as the code of that number, any other as a driver error.
TRELM_EXPORTED uint32_t trelm_xlate_err(uint32_t stat);

}  // extern "C"
