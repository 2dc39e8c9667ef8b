// shared_db.h - the file that processes with the library loaded share, and its slots.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "trelm_exported.h"

inline constexpr unsigned kLibraryInstances = 8;

#pragma pack(push, 1)

// A slot's queue of events. This library zeroes it and does nothing else with it.
struct trelm_hbaptevq {
    uint32_t eventbuf[1024];
    uint16_t q_head;
    uint16_t q_tail;
    uint8_t rsvd[16];
};

struct trelm_shared_db {
    uint32_t libinst_flags[kLibraryInstances];
    trelm_hbaptevq hbaptevq[kLibraryInstances];
    uint8_t reserved[130880];
};

#pragma pack(pop)

static_assert(sizeof(trelm_hbaptevq) == 4116 && offsetof(trelm_hbaptevq, q_head) == 4096 &&
              offsetof(trelm_hbaptevq, q_tail) == 4098 && offsetof(trelm_hbaptevq, rsvd) == 4100);
static_assert(sizeof(trelm_shared_db) == 163840 && offsetof(trelm_shared_db, hbaptevq) == 32 &&
              offsetof(trelm_shared_db, reserved) == 32960);
static_assert(std::is_standard_layout_v<trelm_shared_db> && std::is_trivial_v<trelm_shared_db>);

extern "C" {

extern TRELM_EXPORTED key_t trelm_db_semkey;
extern TRELM_EXPORTED const char trelm_db_fname[];
extern TRELM_EXPORTED int32_t trelm_db_sem_id;             // -1 none
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
