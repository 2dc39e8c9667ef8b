// transport.h - which driver serves a port, and what the public functions ask of it. A Transport is a
// complete table: the functions read as their algorithms and know no driver.
#pragma once

#include "trelm_core.h"
#include "trelm_dbg.h"

namespace trelm::detail {

// How a request ended. Requests fail by their result, by the driver's status, or by both.
struct Outcome {
    uint32_t result;
    uint32_t stat;

    bool failed() const { return result != 0 || stat != 0; }
};

// The record of a SCSI command to either kind of driver: they begin alike, so the common fields can be read
// from both.
union scsi_cmd_record {
    dorfc_scsi_cmd legacy;
    kronfc_scsi_cmd native;
};

struct Transport {
    // How opening and closing fail, and what the public functions say of it.
    uint32_t (*open)(trelm_priv_db* pdb, uint32_t instance, uint32_t* handle, uint32_t* err);
    uint32_t (*close)(trelm_priv_db* pdb, uint32_t* err);
    const char* open_failed;
    const char* close_failed;  // null: nothing is said

    // Asks for port information and brings the registry record up to date with it.
    Outcome (*refresh_port)(trelm_priv_db* pdb);
    Outcome (*fcf_info)(trelm_priv_db* pdb, dorfc_fcf_info* fcf);
    Outcome (*port_stats)(trelm_priv_db* pdb, dorfc_port_stats* stats);
    Outcome (*tgt_info)(trelm_priv_db* pdb, dorfc_tgt_info* tgt);
    const char* calling_port_info;  // trace lines of their own, or null
    const char* calling_fcf_info;
    const char* stats_alloc_failed;
    const char* tgt_alloc_failed;

    // Sends the command; `data` is the caller's buffer of cmd's data_len bytes. A read leaves its data there
    // on success.
    Outcome (*send_scsi)(trelm_priv_db* pdb, scsi_cmd_record* cmd, uint8_t* data);
    bool native;  // one command moves at most kScsiMaxData bytes
    const char* scsi_alloc_failed;
    const char* scsi_failed;

    uint32_t (*public_port_state)(uint32_t port_state);
    bool reports_mfw_version;
};

// The transport that serves the ports of a hardware record.
const Transport& transport_of(const trelm_hw_info* hw);

// The lines of a public function: its name, the handle or instance in parentheses, and a text with perhaps a
// number.
[[gnu::always_inline]] inline void trace_call(const char* func, uint32_t handle, const Piece& text) {
    trace(func, Piece("(", handle), text);
}
[[gnu::always_inline]] inline void error_call(const char* func, uint32_t handle, const Piece& text) {
    error(func, Piece("(", handle), text);
}
// Logs the text and returns the status, so that failing is one expression.
uint32_t fail_call(const char* func, uint32_t handle, Piece text, uint32_t status);
// The same for a failed request: the line shows its status and errno, which the returned code translates.
uint32_t fail_request(const char* func, uint32_t handle, const char* text, Outcome outcome);

}  // namespace trelm::detail

extern "C" {

// A driver status as a return code: 1 to 13 as the code of that number, any other as a driver error.
TRELM_API uint32_t trelm_xlate_err(uint32_t stat);

}  // extern "C"
