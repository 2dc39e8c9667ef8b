// What the public functions for a port share.

#include "trelm_mgmt/port_call.h"

#include "trelm_mgmt/transport.h"

namespace trelm::detail {

void PortCall::look_up() {
    while (call_) {
        port_ = trelm_get_vn_pdb_from_user_handle(handle_, npiv_index_);
        // Over a node a call must not be found between two closes: the descriptor might be another file's then.
        if (!port_ || transport_of(port_->hw_info).driver || !call_.made_way_for_close(handle_)) return;
        port_ = nullptr;
    }
}

uint32_t fail_call(const char* func, uint32_t handle, Piece text, uint32_t status) {
    error_call(func, handle, text);
    return status;
}

uint32_t fail_request(const char* func, uint32_t handle, const char* text, const Outcome& outcome) {
    error(func, Piece("(", handle), Piece(text, outcome.stat), Piece(" errno=", outcome.error));
    return trelm_xlate_err(outcome.stat);
}

}  // namespace trelm::detail
