// management_library.cpp - the functions of libvmkmgmt.so, answered by the host of this process.
#include <cerrno>
#include <cstdarg>

#include "host.h"
#include "vmkmgmt.h"

namespace {

// vmk_MgmtUserInit returns the error number and sets errno.
int refuse(int error) {
    errno = error;
    return error;
}

}  // namespace

extern "C" {

HOSTSIM_API int vmk_MgmtUserInit(vmk_MgmtApiSignature* signature, uint64_t cookie,
                                 vmk_MgmtUserHandle* handle) {
    hostsim::Host* const host = hostsim::Host::current();
    return host ? host->management_init(signature, cookie, handle) : refuse(ENOENT);
}

HOSTSIM_API int vmk_MgmtUserCallbackInvokeInt(vmk_MgmtUserHandle handle, uint64_t instance_id,
                                              uint64_t callback_id, uint32_t parm_count, ...) {
    hostsim::Host* const host = hostsim::Host::current();
    if (!host) {
        errno = ENOENT;
        return -1;
    }
    // No driver has a callback with more than one parameter. With a larger count only the first is looked at.
    va_list arguments;
    va_start(arguments, parm_count);
    void* const first = parm_count > 0 ? va_arg(arguments, void*) : nullptr;
    va_end(arguments);
    return host->management_invoke(handle, instance_id, callback_id, parm_count, &first);
}
}
