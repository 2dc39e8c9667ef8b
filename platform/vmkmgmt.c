/*
 * The VMkernel management interface for machines without one. libtrelm is linked with it, so that programs
 * which use the library start on any machine. It refuses every connection.
 */
#include "vmkmgmt.h"

#include <errno.h>

int vmk_MgmtUserInit(vmk_MgmtApiSignature* signature, uint64_t cookie, vmk_MgmtUserHandle* handle) {
    (void)signature;
    (void)cookie;
    (void)handle;
    errno = ENOENT;
    return ENOENT;
}

int vmk_MgmtUserCallbackInvokeInt(vmk_MgmtUserHandle handle, uint64_t instanceId, uint64_t callbackId,
                                  uint32_t parmCount, ...) {
    (void)handle;
    (void)instanceId;
    (void)callbackId;
    (void)parmCount;
    errno = ENOENT;
    return -1;
}
