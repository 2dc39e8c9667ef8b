// legacy_node.h - the legacy driver's side of its character node: the ioctl requests, carried out on the
// caller's memory.
#pragma once

#include "request_pipeline.h"

namespace hostsim {

// Like ioctl on the node: 0, or -1 with errno.
int legacy_ioctl(RequestPipeline& pipeline, unsigned long number, void* block);

}  // namespace hostsim
