/*
 * vmkmgmt.h - the part of the VMkernel management interface that libtrelm uses. An API signature names the
 * management API of a driver and its callbacks. vmk_MgmtUserInit connects to the API.
 * vmk_MgmtUserCallbackInvokeInt runs one of its callbacks inside the driver. The header of the same name from
 * a platform SDK can replace this one.
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

/* The direction of a parameter between the caller and the callback. */
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

/* Connects to the management API that `signature` names. Returns 0 and a handle, or a non-zero status. */
int vmk_MgmtUserInit(vmk_MgmtApiSignature* signature, uint64_t cookie, vmk_MgmtUserHandle* handle);

/*
 * Runs one callback with `parmCount` parameters, each passed as its address. In/out parameters are copied to
 * the callback and back. Returns 0 if the callback was carried out, else -1 with errno.
 */
int vmk_MgmtUserCallbackInvokeInt(vmk_MgmtUserHandle handle, uint64_t instanceId, uint64_t callbackId,
                                  uint32_t parmCount, ...);

#ifdef __cplusplus
}
#endif

#endif
