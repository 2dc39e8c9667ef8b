#include "own_calls.h"

namespace hostsim {
namespace {

// Static thread storage needs no allocation, so interposed functions work inside malloc and signal handlers.
[[gnu::tls_model("initial-exec")]] constinit thread_local int depth = 0;

}  // namespace

OwnCalls::OwnCalls() noexcept { ++depth; }
OwnCalls::~OwnCalls() { --depth; }
bool OwnCalls::active() noexcept { return depth > 0; }

}  // namespace hostsim
