// transport.h - which driver serves a port, and the requests that the public functions make. The functions
// themselves are independent of the driver.
#pragma once

#include "trelm_core.h"
#include "trelm_native.h"

namespace trelm::detail {

// What differs between the three drivers.
struct Transport {
    const NativeDriver* driver;  // null: the legacy driver
    bool reports_mfw_version;
    // Log messages of the public functions.
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

// Both return 0 on success. On failure *err is the system error number if there is one.
uint32_t open_port(const Transport& transport, trelm_priv_db* pdb, uint32_t instance, uint32_t* handle,
                   uint32_t* err);
uint32_t close_port(const Transport& transport, trelm_priv_db* pdb, uint32_t* err);

// What a driver reports about a port at any time.
struct PortStatus {
    uint32_t port_id;
    uint32_t port_state;  // legacy driver: already a public value; native: a value of the driver
    uint16_t port_sup_speed;
    uint16_t port_speed;
    uint32_t tgt_cnt;
};
Outcome ask_port_status(const Transport& transport, trelm_priv_db* pdb, PortStatus& status);
uint32_t public_port_state(const Transport& transport, uint32_t port_state);

// These fill the record on success. The legacy driver gets the record itself and may read what it holds.
Outcome ask_fcf_info(const Transport& transport, trelm_priv_db* pdb, dorfc_fcf_info* fcf);
Outcome ask_port_stats(const Transport& transport, trelm_priv_db* pdb, dorfc_port_stats* stats);
Outcome ask_tgt_info(const Transport& transport, trelm_priv_db* pdb, dorfc_tgt_info* tgt);

// Sends the command. `data` is the buffer of the caller, cmd->data_len bytes; a successful read stores its
// data there.
Outcome send_scsi(const Transport& transport, trelm_priv_db* pdb, dorfc_scsi_cmd* cmd, uint8_t* data);

}  // namespace trelm::detail

extern "C" {

// Translates a driver status to a return code: 1 to 13 to the code with that number, all others to a driver
// error.
TRELM_EXPORTED uint32_t trelm_xlate_err(uint32_t stat);

}  // extern "C"
