// load.h - load and unload: the work of the public functions, and who may load.
//
// Nothing here is guarded: a direct caller must keep other threads out of the library.
#pragma once

#include <cstdint>

#include "trelm_exported.h"

extern "C" {

extern TRELM_EXPORTED uint8_t trelm_os_type;  // 0 not yet tested, 1 ESXi, 2 another system
extern TRELM_EXPORTED const char* const trelm_api_version;

TRELM_EXPORTED uint32_t trelm_load_lib(void);
TRELM_EXPORTED uint32_t trelm_unload_lib(void);
TRELM_EXPORTED void trelm_cleanup_hbas(void);
TRELM_EXPORTED void trelm_check_esx(void);

}  // extern "C"
