// shared_db.h - the file that processes with the library loaded share, and its slots.
//
// Nothing here is guarded: a direct caller must keep other threads out of the library.
#pragma once

#include <cstdint>

#include "shared_layout.h"
#include "trelm_exported.h"

extern "C" {

extern TRELM_EXPORTED const char trelm_db_fname[];
extern TRELM_EXPORTED int32_t trelm_shm_fildes;            // -1 none
extern TRELM_EXPORTED trelm_shared_db* trelm_shared_data;  // the mapped file, or null
extern TRELM_EXPORTED uint8_t trelm_library_instance;      // slot 0 to 7; 255 before one was taken
extern TRELM_EXPORTED uint8_t trelm_use_db;                // for programs that read it; the library does not

TRELM_EXPORTED uint32_t trelm_open_database(int32_t* ret_handle);
TRELM_EXPORTED uint32_t trelm_close_database(int32_t fildes);
// The number of processes that have the library loaded: at most 255, and 0 if it is not known.
TRELM_EXPORTED uint8_t trelm_get_total_libinst_count(void);

}  // extern "C"

namespace trelm::detail {

// Whether the shared database is open in this process. Together with a port list that means 'loaded'.
bool database_is_open();
// Whether it is open because the process is a forked child of the one that opened it. The child has no slot
// and must not release that of its parent.
bool database_is_inherited();

}  // namespace trelm::detail
