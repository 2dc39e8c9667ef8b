// Page faults and memory.

#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "host.h"
#include "measure.h"
#include "rows.h"
#include "trelm_mgmt.h"

namespace bench {
namespace {

constexpr uint32_t kData = TRELM_SCSI_MAX_NATIVE_DATA;

long minor_faults() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

void read_data(uint32_t handle, std::vector<uint8_t>& data) {
    TRELM_SCSI_CMND command = {};
    command.Direction = TRELM_SCSI_DATA_IN;
    command.CDBLength = 16;
    uint32_t length = kData;
    expect_ok(TRELM_SendScsiCommand(handle, 0, &command, &length, data.data()), "TRELM_SendScsiCommand");
}

// The work of an agent between two commands: it allocates a block of 64 KiB to 1 MiB, writes it and frees it.
void allocate_and_free(size_t turn) {
    const size_t size = (64u << (turn % 5)) * 1024;
    auto* block = static_cast<char*>(malloc(size));
    if (!block) throw std::bad_alloc();
    for (size_t at = 0; at < size; at += 4096) block[at] = 1;
    benchmark::DoNotOptimize(block);
    free(block);
}

void faults_of_a_command(benchmark::State& state, Kind kind) {
    constexpr size_t kWarmUp = 10;
    constexpr size_t kCommands = 1000;
    const LoadedLibrary host({.kind = kind});
    std::vector<uint8_t> data(kData, 1);
    long faults = 0;
    for ([[maybe_unused]] auto _ : state) {
        for (size_t turn = 0; turn < kWarmUp + kCommands; ++turn) {
            allocate_and_free(turn);
            const long before = minor_faults();
            read_data(host.handle(), data);
            if (turn >= kWarmUp) faults += minor_faults() - before;
        }
        state.SetIterationTime(1);
    }
    report_value(state, static_cast<double>(faults) / kCommands, "minor faults a command");
}

// A sum of fields of /proc/self/FILE that begin with the key, in KiB.
double kibibytes(const char* file, const std::string& key) {
    std::ifstream lines(file);
    std::string line;
    double sum = 0;
    while (std::getline(lines, line)) {
        if (line.compare(0, key.size(), key) == 0) sum += atof(line.c_str() + line.find(':') + 1);
    }
    return sum;
}
double private_memory() { return kibibytes("/proc/self/smaps_rollup", "Private_"); }

struct Memory {
    double load;
    double command;
};

// Starts this executable again: a forked process would count pages that it inherited.
Memory probe() {
    char path[4096] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) < 0)
        throw std::runtime_error("cannot find the executable");
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("cannot make a pipe");
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], 1);
        execl(path, path, kMemoryProbe, nullptr);
        _exit(127);
    }
    close(ends[1]);
    FILE* answer = fdopen(ends[0], "r");
    Memory memory = {};
    const bool told = fscanf(answer, "%lf %lf", &memory.load, &memory.command) == 2;
    fclose(answer);
    if (!told) throw std::runtime_error("the memory probe ended without a result");
    return memory;
}

void private_memory_row(benchmark::State& state, double Memory::*what) {
    Memory memory = {};
    for ([[maybe_unused]] auto _ : state) {
        memory = probe();
        state.SetIterationTime(1);
    }
    report_value(state, memory.*what, "KiB");
}

}  // namespace

// A host as large as the lab host: two physical ports, each with a virtual one.
int probe_memory() {
    touch_kernel_memory();
    directory();
    std::vector<uint8_t> data(kData, 1);
    private_memory();  // reading the numbers allocates memory, so it is done once before
    const double before = private_memory();
    const LoadedLibrary host({.kind = Kind::kron, .count = 4, .half_virtual = true});
    const double loaded = private_memory();
    std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak
    const double resident = kibibytes("/proc/self/status", "VmHWM");
    read_data(host.handle(), data);
    const double peak = kibibytes("/proc/self/status", "VmHWM");
    printf("%f %f\n", loaded - before, peak - resident);
    return 0;
}

void add_memory_rows() {
    for (const Kind kind : kKinds) {
        add_row(std::string("page faults of a 256 KiB read, ") + name_of(kind), 1,
                [=](benchmark::State& state) { faults_of_a_command(state, kind); });
    }
    add_row("private memory that a load adds, 4 ports", 1,
            [](benchmark::State& state) { private_memory_row(state, &Memory::load); });
    add_row("peak memory that the first 256 KiB read adds, kron", 1,
            [](benchmark::State& state) { private_memory_row(state, &Memory::command); });
}

}  // namespace bench
