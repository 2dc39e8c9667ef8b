// shared_db.h - the file that processes with the library loaded share, and its slots.
//
// Nothing here is guarded: who calls it directly sees to it that no other thread is in the library.
#pragma once

#include <cstdint>

#include "shared_layout.h"
#include "trelm_exported.h"

extern "C" {

extern TRELM_EXPORTED const char trelm_db_fname[];
extern TRELM_EXPORTED int32_t trelm_shm_fildes;            // -1 none
extern TRELM_EXPORTED trelm_shared_db* trelm_shared_data;  // the mapped file, or null
extern TRELM_EXPORTED uint8_t trelm_library_instance;      // slot 0 to 7; 255 before one was taken
extern TRELM_EXPORTED uint8_t trelm_use_db;                // for programs that look at it; nothing here does

TRELM_EXPORTED uint32_t trelm_open_database(int32_t* ret_handle);
TRELM_EXPORTED uint32_t trelm_close_database(int32_t fildes);
// Processes that have the library loaded, 255 where there are more; 0 when that cannot be told.
TRELM_EXPORTED uint8_t trelm_get_total_libinst_count(void);

}  // extern "C"

namespace trelm::detail {

// Whether the shared database is open in this process, which with a port list is what 'loaded' means.
bool database_is_open();
// Whether it is open because this process is a forked child of the one that opened it. The child has no slot of its
// own, and leaves its parent's alone.
bool database_is_inherited();

}  // namespace trelm::detail
