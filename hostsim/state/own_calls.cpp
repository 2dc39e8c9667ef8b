#include "own_calls.h"

namespace hostsim {
namespace {

// Static thread storage: no allocation on first use, so that an interposer may ask inside malloc or a signal
// handler.
[[gnu::tls_model("initial-exec")]] constinit thread_local int depth = 0;

}  // namespace

OwnCalls::OwnCalls() noexcept { ++depth; }
OwnCalls::~OwnCalls() { --depth; }
bool OwnCalls::active() noexcept { return depth > 0; }

}  // namespace hostsim
