/*
 * vmkmgmt.h - the VMkernel management interface as libtrelm uses it: an API signature names a driver's
 * management API and its callbacks; vmk_MgmtUserInit connects to it, vmk_MgmtUserCallbackInvokeInt runs one
 * of its callbacks inside the driver. A platform SDK's header of the same name may stand in its place.
 */
#ifndef VMKMGMT_H
#define VMKMGMT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vmk_Name {
    char string[32];
} vmk_Name;

/* Where a callback runs. */
enum { VMK_MGMT_CALLBACK_KERNEL = 0, VMK_MGMT_CALLBACK_USER = 1 };

/* Which way a parameter travels between the caller and the callback. */
enum { VMK_MGMT_PARMTYPE_IN = 1, VMK_MGMT_PARMTYPE_OUT = 2, VMK_MGMT_PARMTYPE_INOUT = 3 };

typedef struct vmk_MgmtCallbackInfo {
    uint32_t location;     /* VMK_MGMT_CALLBACK_* */
    void* callback;        /* the function of a user-side callback; null for one in the kernel */
    uint8_t synchronous;   /* 1: the invocation returns when the callback has run */
    uint8_t numParms;      /* parameters, at most 4 */
    uint64_t parmSizes[4]; /* bytes */
    uint32_t parmTypes[4]; /* VMK_MGMT_PARMTYPE_* */
    uint64_t callbackId;
} vmk_MgmtCallbackInfo;

typedef struct vmk_MgmtApiSignature {
    uint32_t version; /* major, minor, update, patch: one byte each, major in the top byte */
    vmk_Name name;
    vmk_Name vendor;
    uint32_t numCallbacks;
    vmk_MgmtCallbackInfo* callbacks;
} vmk_MgmtApiSignature;

typedef uint64_t vmk_MgmtUserHandle;

/* Connects to the management API that `signature` names. 0 and a handle, or a non-zero status. */
int vmk_MgmtUserInit(vmk_MgmtApiSignature* signature, uint64_t cookie, vmk_MgmtUserHandle* handle);

/*
 * Runs one callback with `parmCount` parameters, each given as its address; in/out parameters are copied to
 * the callback and back. 0 when the callback was carried out, else -1 with errno set.
 */
int vmk_MgmtUserCallbackInvokeInt(vmk_MgmtUserHandle handle, uint64_t instanceId, uint64_t callbackId,
                                  uint32_t parmCount, ...);

#ifdef __cplusplus
}
#endif

#endif
