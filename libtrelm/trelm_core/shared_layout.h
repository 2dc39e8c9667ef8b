// shared_layout.h - the layout of the shared file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

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
