// trelm_ntapi.h - the transport to the native driver of the kron adapter family.
#pragma once

#include "trelm_native_exports.h"

extern "C" {

extern TRELM_API vmk_MgmtCallbackInfo kron_fcapi_callbacks[10];
extern TRELM_API vmk_MgmtApiSignature kron_fcapi_sig;
extern TRELM_API vmk_MgmtUserHandle kron_fcapi_handle;

TRELM_DECLARE_NATIVE_TRANSPORT(trelmnt, kronfc);

}  // extern "C"
