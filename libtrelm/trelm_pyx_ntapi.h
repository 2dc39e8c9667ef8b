// trelm_pyx_ntapi.h - the transport to ostfc, the native driver of the pyx adapter family.
#pragma once

#include "trelm_native_exports.h"

extern "C" {

extern TRELM_API vmk_MgmtCallbackInfo cx_fcoe_callbacks[8];
extern TRELM_API vmk_MgmtApiSignature cx_fcoe_sig;
extern TRELM_API vmk_MgmtUserHandle cx_fcoe_handle;

TRELM_DECLARE_NATIVE_TRANSPORT(trelm_pyxnt, cx_fcoe);

}  // extern "C"
