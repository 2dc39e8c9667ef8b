// What the public functions for a port share.

#include "port_call.h"

#include "transport.h"

namespace trelm::detail {

uint32_t fail_call(const char* func, uint32_t handle, Piece text, uint32_t status) {
    error_call(func, handle, text);
    return status;
}

uint32_t fail_request(const char* func, uint32_t handle, const char* text, const Outcome& outcome) {
    error(func, Piece("(", handle), Piece(text, outcome.stat), Piece(" errno=", outcome.error));
    return trelm_xlate_err(outcome.stat);
}

}  // namespace trelm::detail
