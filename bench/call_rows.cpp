// Calls that ask a port for its information or its counters.

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "host.h"
#include "measure.h"
#include "rows.h"
#include "trelm_mgmt.h"

namespace bench {
namespace {

void fcoe_info(benchmark::State& state, Kind kind) {
    const LoadedLibrary host({.kind = kind});
    TRELM_FCOE_INFO info = {};
    info.Version = 2;
    TRELM_FCOE_INFO from = {};
    void* (*volatile copy)(void*, const void*, size_t) = memcpy;  // the one of libc, not an inlined one
    compare(
        state, [&] { expect_ok(TRELM_GetFcoeInfo(host.handle(), &info), "TRELM_GetFcoeInfo"); },
        [&] { copy(&info, &from, sizeof info); });
}

void vnport_info(benchmark::State& state, Kind kind) {
    const LoadedLibrary host({.kind = kind});
    TRELM_VNPORT_INFO info = {};
    info.Version = 2;
    Payload port(kind, RequestNumber::port_info);
    Payload fcf(kind, RequestNumber::fcf_info);
    compare(
        state, [&] { expect_ok(TRELM_GetVNPortInfo(host.handle(), 0, &info), "TRELM_GetVNPortInfo"); },
        [&, legacy = kind == Kind::legacy] {
            port.send();
            if (legacy) bare_link_state_calls();
            fcf.send();
        });
}

void port_stats(benchmark::State& state, Kind kind) {
    const LoadedLibrary host({.kind = kind});
    TRELM_PORT_STATS stats = {};
    Payload payload(kind, RequestNumber::port_stats);
    compare(
        state, [&] { expect_ok(TRELM_GetPortStats(host.handle(), 0, &stats), "TRELM_GetPortStats"); },
        [&] { payload.send(); });
}

void open_close(benchmark::State& state, Kind kind) {
    const LoadedLibrary host({.kind = kind, .count = 2});
    const auto operation = [] {
        uint32_t handle = 0;
        expect_ok(TRELM_OpenAdapter(1, &handle), "TRELM_OpenAdapter");
        expect_ok(TRELM_CloseAdapter(handle), "TRELM_CloseAdapter");
    };
    if (kind != Kind::legacy) return measure(state, operation);
    compare(state, operation, [] { close(open("/dev/char/vmkdriver/dorfc", O_RDWR | O_CLOEXEC)); });
}

}  // namespace

void add_call_rows() {
    struct {
        const char* name;
        void (*row)(benchmark::State&, Kind);
    } constexpr kCalls[] = {{"TRELM_GetFcoeInfo", fcoe_info},
                            {"TRELM_GetVNPortInfo", vnport_info},
                            {"TRELM_GetPortStats", port_stats},
                            {"TRELM_OpenAdapter and TRELM_CloseAdapter", open_close}};
    for (const auto& call : kCalls) {
        for (const Kind kind : kKinds) {
            add_row(std::string(call.name) + ", " + name_of(kind), kPairs,
                    [call, kind](benchmark::State& state) { call.row(state, kind); });
        }
    }
}

}  // namespace bench
