// Load and unload: the checks of user and system, the order of the discoveries, and joining the shared
// database.

#include "load.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cstring>

#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_gate.h"
#include "trelm_mgmt.h"
#include "trelm_ntapi.h"
#include "trelm_pool.h"
#include "trelm_pyx_ntapi.h"
#include "trelm_version.h"

uint8_t trelm_os_type = 0;
const char* const trelm_api_version = TRELM_VERSION_TEXT;

namespace {

using trelm::detail::error;
using trelm::detail::Piece;
using trelm::detail::trace;

constexpr uint8_t kEsxi = 1;
constexpr uint8_t kOtherSystem = 2;

constexpr char kLoad[] = "trelm_load_lib";

struct Discovered {
    uint32_t status;  // 0 when a driver of the pyx family, native or legacy, answered
    uint32_t ports;
};

// The native driver of the pyx family is tried before the legacy one. The kron driver is always tried.
Discovered discover() {
    uint32_t pyx_or_legacy = 0;
    uint32_t kron = 0;
    uint32_t status = trelm_pyxnt_find_all_instances("ostfc", &pyx_or_legacy);
    if (status == 0) {
        trelmnt_find_all_instances("kronfc", &kron);
        return {status, pyx_or_legacy + kron};
    }
    status = trelm_find_all_instances("dorfc", &pyx_or_legacy);
    const uint32_t kron_status = trelmnt_find_all_instances("kronfc", &kron);
    if (status != 0 && kron_status != 0) return {status, 0};
    return {status, pyx_or_legacy + kron};
}

uint32_t discover_and_join() {
    const Discovered found = discover();
    if (!trelm_priv_database || found.ports == 0) {
        error(kLoad, ": ERROR finding adapters.");
        trelm::detail::release_registry();
        return found.status;
    }
    int32_t fildes = 0;
    const uint32_t status = trelm_open_database(&fildes);
    if (status != 0) {
        error(kLoad, ": ERROR setting up database.");
        trelm::detail::release_registry();
    }
    return status;
}

void close_hardware(trelm_hw_info& hw) {
    const int32_t fd = hw.oshandle;
    hw.open_cnt = 0;
    if (fd != -1) {
        trace("trelm_cleanup_hbas", Piece(": closing handle=", fd));
        close(fd);
    }
    hw.oshandle = -1;
    trelm::detail::set_handle(hw, 0);
    hw.phys_path[0] = '\0';
}

}  // namespace

void trelm::detail::forget_registry() {
    trelm_priv_database = nullptr;
    trelm_phy_info = nullptr;
    trelm_db_sem_id = -1;
    trelm_shm_fildes = -1;
    trelm_shared_data = nullptr;
}

void trelm_check_esx(void) {
    trace(__func__, ": entered.");
    utsname names = {};
    if (uname(&names) != 0) {
        error(__func__, ": uname() failed.");
        memset(&names, 0, sizeof names);
    }
    trelm_os_type = strstr(names.sysname, "VMkernel") ? kEsxi : kOtherSystem;
    trace(__func__, ": exiting");
}

uint32_t trelm_load_lib(void) {
    const uid_t uid = geteuid();
    trace(kLoad, Piece(": entered. Got uid=", uid));
    if (uid != 0) {
        error(kLoad, ":libtrelm: ERROR - libtrelm must be loaded with root privileges.");
        return 1;
    }
    trace(kLoad, ": API Version: ", trelm_api_version);
    trelm_check_esx();
    trace(kLoad, Piece(": OS_Type=", trelm_os_type));
    if (trelm_os_type != kEsxi) {
        error(kLoad, ":ERROR - libtrelm supported for ESXi only");
        return 1;
    }
    if (trelm_priv_database) return 0;
    const uint32_t status = discover_and_join();
    trace(kLoad, Piece(": exiting, rval=", status));
    return status;
}

void trelm_cleanup_hbas(void) {
    trace(__func__, Piece(": entered. lib inst=", trelm_library_instance));
    if (!trelm_priv_database) {
        error(__func__, ": api_priv_data not found, exiting");
        return;
    }
    // The first of several ports that share a hardware record closes it.
    trelm_dlist_start(trelm_priv_database);
    while (auto* pdb = static_cast<trelm_priv_db*>(_trelm_dlist_mark_move(trelm_priv_database, 1))) {
        if (pdb->hw_info) close_hardware(*pdb->hw_info);
    }
    trace(__func__, Piece(": lib inst=", trelm_library_instance), " exiting.");
}

uint32_t trelm_unload_lib(void) {
    const uint8_t inst = trelm_library_instance;
    trace(__func__, ": entered.");
    trace(__func__, Piece(": lib inst=", inst), " going to call cleanup_hbas.");
    trelm_cleanup_hbas();
    trelm::detail::pool_empty();
    uint32_t status = 0;
    if (trelm::detail::database_is_open()) {
        trace(__func__, Piece(": lib inst ", inst), " going to call close_database.");
        status = trelm_close_database(trelm_shm_fildes);
        trelm::detail::release_registry();
        trace(__func__, Piece(": exiting, rval=", status));
    } else {
        error(__func__, Piece(": inst ", inst), " db not opened. exiting.");
        trelm::detail::release_registry();
    }
    return status;
}
