// trelm_core.h - the sum of the core's headers: the registry of ports, the database shared between processes,
// semaphores, and the transport to the legacy driver.
//
// Nothing here is guarded: a direct caller must keep other threads out of the library.
#pragma once

#include "legacy_driver.h"
#include "port_records.h"
#include "registry.h"
#include "semaphores.h"
#include "shared_db.h"
