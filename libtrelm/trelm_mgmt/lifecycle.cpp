// Loading and freeing the library, its version, and the number of ports.

#include <cstring>

#include "load.h"
#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_gate.h"
#include "trelm_mgmt.h"
#include "trelm_owners.h"
#include "trelm_version.h"

const char trelm_version_description[128] = "Calvexa Ulvard FC API library version " TRELM_VERSION_TEXT;
static_assert(TRELM_VERSION_NUMBER == TRELM_BUILT_VERSION_NUMBER,
              "the public header has the project's version");

using trelm::detail::Call;
using trelm::detail::error;
using trelm::detail::Exclusive;
using trelm::detail::NoCancellation;
using trelm::detail::Piece;
using trelm::detail::trace;

namespace {

constexpr char kAlreadyLoaded[] = ": already loaded.";
constexpr char kNoAdapters[] = ": no adapters found.";

// A load of a loaded library returns here, without an Exclusive, so it does not wait for running calls.
bool is_loaded() {
    const Call call;
    return call && trelm::detail::database_is_open() && !trelm::detail::database_is_inherited();
}

}  // namespace

uint32_t TRELM_LoadLibrary(void) {
    trelm_set_debug_level();
    trace(__func__, ": entered.");
    if (is_loaded()) {
        error(__func__, kAlreadyLoaded);
        return TRELM_STATUS_OK;
    }
    const NoCancellation whole;
    const Exclusive alone;
    if (!alone) return TRELM_STATUS_FAILED;
    if (trelm::detail::database_is_inherited()) trelm_unload_lib();
    if (trelm::detail::database_is_open()) {  // another thread has loaded it meanwhile
        error(__func__, kAlreadyLoaded);
        return TRELM_STATUS_OK;
    }
    const uint32_t status = trelm_load_lib();
    if (status != 0) {
        error(__func__, Piece(": load failed. rval=", status));
        return TRELM_STATUS_FAILED;
    }
    if (!trelm_priv_database) {
        error(__func__, kNoAdapters);
        return TRELM_STATUS_OK;
    }
    if (!trelm::detail::database_is_open()) {
        error(__func__, ": shared db setup failed.");
        return TRELM_STATUS_FAILED;
    }
    trace(__func__, ": exiting.");
    return TRELM_STATUS_OK;
}

uint32_t TRELM_FreeLibrary(void) {
    trace(__func__, ": entered.");
    const NoCancellation whole;
    const Exclusive alone;
    if (!alone) return TRELM_STATUS_FAILED;
    const uint32_t status = trelm_unload_lib();
    if (status != 0) {
        error(__func__, Piece(": unload failed. rval=", status));
        return TRELM_STATUS_FAILED;
    }
    trace(__func__, ": exiting.");
    return TRELM_STATUS_OK;
}

uint32_t TRELM_GetVersion(uint8_t* pVersion, uint32_t VersionSize) {
    trace(__func__, ": entered.");
    if (pVersion && VersionSize) {
        const size_t whole = strlen(trelm_api_version);
        const size_t fits = whole < VersionSize ? whole : VersionSize - 1;
        memcpy(pVersion, trelm_api_version, fits);
        pVersion[fits] = '\0';
    }
    trace(__func__, Piece(": exiting. version=", TRELM_VERSION_NUMBER, 16));
    return TRELM_VERSION_NUMBER;
}

uint32_t TRELM_GetPortCount(uint32_t* pPortCount) {
    trace(__func__, ": entered.");
    const Call call;
    if (!call || !trelm_priv_database) {
        error(__func__, kNoAdapters);
        return TRELM_STATUS_FAILED;
    }
    if (!trelm::detail::database_is_open()) {
        error(__func__, ": error in shared database setup. Exiting.");
        return TRELM_STATUS_FAILED;
    }
    if (!pPortCount) {
        error(__func__, ": invalid parameter.");
        return TRELM_STATUS_INVALID_PARAMETER;
    }
    const uint32_t count = trelm::detail::count_physical_ports();
    *pPortCount = count;
    trace(__func__, Piece(": exiting. cnt=", count));
    return TRELM_STATUS_OK;
}
