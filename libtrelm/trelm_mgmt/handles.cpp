// Turning instance numbers into handles, and giving handles back.

#include "trelm_mgmt/transport.h"

using trelm::detail::error_call;
using trelm::detail::fail_call;
using trelm::detail::Piece;
using trelm::detail::trace_call;

uint32_t TRELM_OpenAdapter(uint32_t Instance, uint32_t* Handle) {
    trelm_set_debug_level();
    trace_call(__func__, Instance, "): entered.");
    if (!Handle)
        return fail_call(__func__, Instance, "): invalid parameter.", TRELM_STATUS_INVALID_PARAMETER);
    if (!trelm_priv_database)
        return fail_call(__func__, Instance, "): no adapters found.", TRELM_STATUS_FAILED);
    trelm_priv_db* pdb = trelm_get_pdb_from_user_instance(Instance);
    if (!pdb)
        return fail_call(__func__, Instance, "): pdb not found, exiting", TRELM_STATUS_INVALID_INSTANCE);

    const trelm::detail::Transport& transport = trelm::detail::transport_of(pdb->hw_info);
    uint32_t err = 0;
    uint32_t status = transport.open(pdb, Instance, Handle, &err);
    if (status != 0) {
        error_call(__func__, Instance, transport.open_failed);
        status = err ? err : TRELM_STATUS_FAILED;
    }
    trelm::detail::trace(__func__, Piece("(", Instance), Piece("): exiting, Return Handle=", *Handle),
                         Piece(" rval=", status, 16));
    return status;
}

uint32_t TRELM_CloseAdapter(uint32_t Handle) {
    trace_call(__func__, Handle, "): entered.");
    trelm_priv_db* pdb = trelm_get_pdb_from_user_handle(Handle);
    if (!pdb) return fail_call(__func__, Handle, "): get pdb failed.", TRELM_STATUS_FAILED);

    const trelm::detail::Transport& transport = trelm::detail::transport_of(pdb->hw_info);
    uint32_t err = 0;
    uint32_t status = transport.close(pdb, &err);
    if (status != 0) {
        if (transport.close_failed) error_call(__func__, Handle, transport.close_failed);
        status = err ? err : TRELM_STATUS_FAILED;
    }
    trace_call(__func__, Handle, {"): exiting, rval=", status, 16});
    return status;
}
