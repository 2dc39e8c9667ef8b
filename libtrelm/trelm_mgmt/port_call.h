// port_call.h - what the public functions for a port share: entering the library, looking up the port, and
// their log lines.
#pragma once

#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_gate.h"
#include "trelm_mgmt.h"
#include "trelm_native.h"
#include "trelm_owners.h"

namespace trelm::detail {

// A running public function, for the port of a handle and an NPIV index. The port is looked up once. A close
// that begins later does not affect this call.
class PortCall {
  public:
    [[gnu::always_inline]] PortCall(uint32_t handle, uint32_t npiv_index)
        : call_(handle), handle_(handle), npiv_index_(npiv_index) {}

    uint32_t handle() const { return handle_; }
    // Null if there is no such port.
    trelm_priv_db* port() { return port_ ? port_ : port_ = look_up(); }

  private:
    [[gnu::always_inline]] trelm_priv_db* look_up() {
        while (call_) {
            trelm_priv_db* const found = trelm_get_vn_pdb_from_user_handle(handle_, npiv_index_);
            if (!found || is_native(*found)) return found;
            // A legacy port's descriptor may be closed after the look-up, and its number may then belong to
            // another file. So this checks for a waiting close, and for an emptied record. A close that
            // begins after both checks waits for this call.
            if (!call_.made_way_for_close(handle_) && handle_of(found) == handle_) return found;
        }
        return nullptr;
    }
    static bool is_native(const trelm_priv_db& pdb) { return pdb.hw_info->native_driver == 1; }

    Call call_;
    // A driver may wait. A thread that is cancelled there would never release what it holds.
    NoCancellation whole_;
    uint32_t handle_;
    uint32_t npiv_index_;
    trelm_priv_db* port_ = nullptr;
};

inline constexpr char kInvalidParameter[] = "): invalid parameter.";
inline constexpr char kNoDataBuffer[] = "): pdata alloc failed.";
inline constexpr char kNoPort[] = "): get pdb failed.";
inline constexpr char kEntered[] = "): entered.";
inline constexpr char kExiting[] = "): exiting, rval=";

// The log lines of a public function: its name, the handle or instance in parentheses, and a text with an
// optional number.
[[gnu::always_inline]] inline void trace_call(const char* func, uint32_t handle, const Piece& text) {
    trace(func, Piece("(", handle), text);
}
[[gnu::always_inline]] inline void error_call(const char* func, uint32_t handle, const Piece& text) {
    error(func, Piece("(", handle), text);
}
// Logs the text and returns the status, so that a failing step is one expression.
uint32_t fail_call(const char* func, uint32_t handle, Piece text, uint32_t status);
// The same for a failed request. The line shows its status and errno, and the return value is the code for
// its status.
uint32_t fail_request(const char* func, uint32_t handle, const char* text, const Outcome& outcome);

// TRELM_SendScsiCommand for another public function.
uint32_t send_scsi_command(PortCall& call, TRELM_SCSI_CMND* pScsiCmnd, uint32_t* pDataLen, uint8_t* pData);

}  // namespace trelm::detail
