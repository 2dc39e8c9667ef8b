// management_api.h - the kernel's side of the VMkernel management interface: connections of this process to
// the native drivers, and the callbacks that run in them.
#pragma once

#include <cstdint>
#include <map>

#include "request_pipeline.h"
#include "vmkmgmt.h"

namespace hostsim {

class ManagementApi {
  public:
    explicit ManagementApi(RequestPipeline& pipeline) : pipeline_(pipeline) {}

    // Like vmk_MgmtUserInit: returns 0 and a handle, or an error number that is also in errno.
    int init(const vmk_MgmtApiSignature* signature, uint64_t cookie, vmk_MgmtUserHandle* handle);

    // Like vmk_MgmtUserCallbackInvokeInt, with an array of parameter addresses: 0, or -1 with errno.
    int invoke(vmk_MgmtUserHandle handle, uint64_t instance, uint64_t callback, uint32_t parameter_count,
               void* const* parameters);

  private:
    int run(DriverKind driver, uint64_t callback, void* parameter);

    RequestPipeline& pipeline_;
    std::map<vmk_MgmtUserHandle, DriverKind> connections_;
};

}  // namespace hostsim
