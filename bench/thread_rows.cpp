// Two threads that make the same calls at once, on one port each or both on one port, compared with one
// thread.

#include <atomic>
#include <string>
#include <thread>

#include "host.h"
#include "measure.h"
#include "rows.h"
#include "trelm_mgmt.h"

namespace bench {
namespace {

// Long enough for two threads to run side by side most of the time.
constexpr double kTogether = 3e6;  // nanoseconds
constexpr int kSamples = 101;

void ask_adapter(uint32_t port) {
    TRELM_FCOE_INFO info;
    info.Version = 2;
    expect_ok(TRELM_GetFcoeInfo(port + 1, &info), "TRELM_GetFcoeInfo");
}

void ask_port(uint32_t port) {
    TRELM_VNPORT_INFO info;
    info.Version = 2;
    expect_ok(TRELM_GetVNPortInfo(port + 1, 0, &info), "TRELM_GetVNPortInfo");
}

void ask_stats(uint32_t port) {
    TRELM_PORT_STATS stats;
    expect_ok(TRELM_GetPortStats(port + 1, 0, &stats), "TRELM_GetPortStats");
}

void open_and_close(uint32_t port) {
    uint32_t handle = 0;
    expect_ok(TRELM_OpenAdapter(port, &handle), "TRELM_OpenAdapter");
    expect_ok(TRELM_CloseAdapter(handle), "TRELM_CloseAdapter");
}

using PortCall = void (*)(uint32_t port);

// The cost of a call for each thread while all threads make it.
double cost_together(PortCall call, uint32_t threads, bool one_port, size_t count) {
    std::atomic<uint32_t> arrived = 0;
    std::vector<double> costs(threads);
    std::vector<std::thread> started;
    for (uint32_t i = 0; i < threads; ++i) {
        started.emplace_back([&, i] {
            const uint32_t port = one_port ? 0 : i;
            call(port);  // the first call of a thread costs more
            ++arrived;
            while (arrived != threads) std::this_thread::yield();
            const auto work = [call, port] { call(port); };
            costs[i] = time_batch(work, count);
        });
    }
    double sum = 0;
    for (uint32_t i = 0; i < threads; ++i) {
        started[i].join();
        sum += costs[i];
    }
    return sum / threads;
}

void two_threads(benchmark::State& state, Kind kind, PortCall call, bool one_port) {
    const LoadedLibrary host({.kind = kind, .count = 2});
    uint32_t second = 0;
    expect_ok(TRELM_OpenAdapter(1, &second), "TRELM_OpenAdapter");
    const auto count = static_cast<size_t>(kTogether / cost_together(call, 1, one_port, 100));
    Samples samples;
    for ([[maybe_unused]] auto _ : state) {
        const double alone = cost_together(call, 1, one_port, count);
        const double together = cost_together(call, 2, one_port, count);
        samples.add(together, alone);
        state.SetIterationTime(together * 1e-9);
    }
    samples.report(state);
}

}  // namespace

void add_thread_rows() {
    struct {
        const char* name;
        PortCall call;
    } constexpr kCalls[] = {{"TRELM_GetFcoeInfo", ask_adapter},
                            {"TRELM_GetVNPortInfo", ask_port},
                            {"TRELM_GetPortStats", ask_stats},
                            {"TRELM_OpenAdapter and TRELM_CloseAdapter", open_and_close}};
    for (const bool one_port : {false, true}) {
        for (const auto& call : kCalls) {
            for (const Kind kind : {Kind::kron, Kind::legacy}) {
                add_row(std::string("two threads on ") + (one_port ? "one port: " : "two ports: ") +
                            call.name + ", " + name_of(kind) + ", against one thread",
                        kSamples,
                        [=](benchmark::State& state) { two_threads(state, kind, call.call, one_port); });
            }
        }
    }
}

}  // namespace bench
