// Opening and closing ports. At most one open or close runs for each port.

#include "port_call.h"
#include "transport.h"

using trelm::detail::close_port;
using trelm::detail::error_call;
using trelm::detail::fail_call;
using trelm::detail::kNoPort;
using trelm::detail::open_port;
using trelm::detail::Piece;
using trelm::detail::PortLock;
using trelm::detail::trace_call;
using trelm::detail::Transport;
using trelm::detail::transport_of;

uint32_t TRELM_OpenAdapter(uint32_t Instance, uint32_t* Handle) {
    trelm_set_debug_level();
    trace_call(__func__, Instance, trelm::detail::kEntered);
    if (!Handle) {
        return fail_call(__func__, Instance, trelm::detail::kInvalidParameter,
                         TRELM_STATUS_INVALID_PARAMETER);
    }
    const PortLock lock(Instance);
    if (!lock || !trelm_priv_database)
        return fail_call(__func__, Instance, "): no adapters found.", TRELM_STATUS_FAILED);
    trelm_priv_db* pdb = trelm_get_pdb_from_user_instance(Instance);
    if (!pdb)
        return fail_call(__func__, Instance, "): pdb not found, exiting", TRELM_STATUS_INVALID_INSTANCE);

    const Transport& transport = transport_of(pdb->hw_info);
    uint32_t err = 0;
    uint32_t status = open_port(transport, pdb, Instance, Handle, &err);
    if (status != 0) {
        error_call(__func__, Instance, transport.open_failed);
        status = err ? err : TRELM_STATUS_FAILED;
    }
    trelm::detail::trace(__func__, Piece("(", Instance), Piece("): exiting, Return Handle=", *Handle),
                         Piece(" rval=", status, 16));
    return status;
}

uint32_t TRELM_CloseAdapter(uint32_t Handle) {
    trace_call(__func__, Handle, trelm::detail::kEntered);
    PortLock lock(Handle - 1);
    trelm_priv_db* pdb = lock ? trelm_get_pdb_from_user_handle(Handle) : nullptr;
    if (!pdb) return fail_call(__func__, Handle, kNoPort, TRELM_STATUS_FAILED);

    const Transport& transport = transport_of(pdb->hw_info);
    // Requests that use the descriptor of the node end before it is closed.
    if (!transport.driver && pdb->hw_info->open_cnt == 1 && !lock.expel_users(Handle))
        return fail_call(__func__, Handle, kNoPort, TRELM_STATUS_FAILED);
    uint32_t err = 0;
    uint32_t status = close_port(transport, pdb, &err);
    if (status != 0) {
        if (transport.close_failed) error_call(__func__, Handle, transport.close_failed);
        status = err ? err : TRELM_STATUS_FAILED;
    }
    trace_call(__func__, Handle, {trelm::detail::kExiting, status, 16});
    return status;
}
