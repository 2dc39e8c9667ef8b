// The debug log: the cost of a line, and of a log that is off.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include "host.h"
#include "measure.h"
#include "rows.h"
#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_mgmt.h"

namespace bench {
namespace {

constexpr char kLine[] = "TRELM_GetPortStats(1): entered.\n";

// Redirects standard error to /dev/null, sets the flags of the log, and puts its file into the directory of
// the benchmark.
class Logging {
  public:
    explicit Logging(uint32_t flags) : old_stderr_(dup(2)) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, 2);
        close(null);
        setenv("TRELM_API_DEBUG", std::to_string(flags).c_str(), 1);
        trelm_set_debug_level();
        snprintf(trelmlog_path, sizeof trelmlog_path, "%s/log", directory().c_str());
    }
    ~Logging() {
        trelm_debug = 0;
        unsetenv("TRELM_API_DEBUG");
        dup2(old_stderr_, 2);
        close(old_stderr_);
        unlink(trelmlog_path);
    }
    Logging(const Logging&) = delete;
    Logging& operator=(const Logging&) = delete;

  private:
    int old_stderr_;
};

void log_line() {
    trelm_dbg_print("TRELM_GetPortStats", "(", 1, 10, 0);
    trelm_dbg_print(nullptr, "): entered.", 0, 0, 1);
}

void write_line(int fd) { benchmark::DoNotOptimize(write(fd, kLine, sizeof kLine - 1)); }

void line(benchmark::State& state, uint32_t flags) {
    const Logging logging(flags);
    const int file = open((directory() + "/floor").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    compare(state, log_line, [&] {
        write_line(2);
        if (flags & 1) write_line(file);
    });
    close(file);
}

// This row waits for disks, so it is measured with another clock.
void sync_call(benchmark::State& state) {
    Samples samples;
    for ([[maybe_unused]] auto _ : state) {
        const double start = now(CLOCK_MONOTONIC);
        syscall(SYS_sync);
        samples.add(now(CLOCK_MONOTONIC) - start, 0);
        state.SetIterationTime(1);
    }
    samples.report(state);
}

// The library that this executable is linked with, or another one that is loaded beside it.
class Library {
  public:
    explicit Library(const char* path) : object_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (!object_) throw std::runtime_error(dlerror());
        get(load, "TRELM_LoadLibrary");
        get(free, "TRELM_FreeLibrary");
        get(open, "TRELM_OpenAdapter");
        get(info, "TRELM_GetFcoeInfo");
        get(stats, "TRELM_GetPortStats");
        get(scsi, "TRELM_SendScsiCommand");
        expect_ok(load(), "TRELM_LoadLibrary");
        expect_ok(open(0, &handle), "TRELM_OpenAdapter");
    }
    ~Library() {
        free();
        dlclose(object_);
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    decltype(&TRELM_LoadLibrary) load;
    decltype(&TRELM_FreeLibrary) free;
    decltype(&TRELM_OpenAdapter) open;
    decltype(&TRELM_GetFcoeInfo) info;
    decltype(&TRELM_GetPortStats) stats;
    decltype(&TRELM_SendScsiCommand) scsi;
    uint32_t handle = 0;

  private:
    template <class Function>
    void get(Function& function, const char* name) {
        function = reinterpret_cast<Function>(dlsym(object_, name));
        if (!function) throw std::runtime_error(dlerror());
    }

    void* object_;
};

void call_info(const Library& library) {
    TRELM_FCOE_INFO info;
    info.Version = 2;
    expect_ok(library.info(library.handle, &info), "TRELM_GetFcoeInfo");
}

void call_stats(const Library& library) {
    TRELM_PORT_STATS stats;
    expect_ok(library.stats(library.handle, 0, &stats), "TRELM_GetPortStats");
}

void call_scsi(const Library& library) {
    TRELM_SCSI_CMND command = {};
    command.CDBLength = 6;
    expect_ok(library.scsi(library.handle, 0, &command, nullptr, nullptr), "TRELM_SendScsiCommand");
}

void log_off(benchmark::State& state, Kind kind, void (*call)(const Library&)) {
    serve({.kind = kind});
    const Library with("libtrelm.so.5");
    const Library without(TRELM_UNLOGGED_LIBRARY);
    compare(
        state, [&] { call(with); }, [&] { call(without); });
}

}  // namespace

void add_log_rows() {
    for (const uint32_t flags : {0u, 6u, 7u}) {
        add_row("log line at flags " + std::to_string(flags) + ", against a bare write", kPairs,
                [=](benchmark::State& state) { line(state, flags); });
    }
    add_row("sync(), once a line at flags 7, not in the row above", 15, sync_call);
    struct {
        const char* name;
        void (*call)(const Library&);
    } constexpr kCalls[] = {{"TRELM_GetFcoeInfo", call_info},
                            {"TRELM_GetPortStats", call_stats},
                            {"TRELM_SendScsiCommand no data", call_scsi}};
    for (const auto& call : kCalls) {
        for (const Kind kind : kKinds) {
            add_row(std::string("log off: ") + call.name + ", " + name_of(kind) +
                        ", against a library without a log",
                    1001, [=](benchmark::State& state) { log_off(state, kind, call.call); });
        }
    }
}

}  // namespace bench
