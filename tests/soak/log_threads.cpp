// log_threads.cpp - several threads write the log while the process forks: every line must be whole, and a
// build with ThreadSanitizer must report nothing.
#include <fmt/format.h>

#include <fstream>
#include <regex>
#include <thread>

#include "../support/child.h"
#include "host.h"
#include "host_builders.h"
#include "trelm_core.h"
#include "trelm_dbg.h"

// For ThreadSanitizer: a forked child never joins its parent's threads, and standard error is full of the
// log.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __tsan_default_options() { return "report_thread_leaks=0:log_path=stdout"; }

namespace {

constexpr unsigned kThreads = 4, kForks = 10;
constexpr uint64_t kLines = 200;

int write_line(uint64_t writer, uint64_t number) {
    trelm_dbg_print("writer", "(", writer, 10, 0);
    trelm_dbg_print(nullptr, "): a line in two pieces, number ", number, 10, 1);
    return 0;
}

void write_lines(uint64_t writer) {
    constexpr uint8_t kBytes[] = {1, 2, 3, 4};
    for (uint64_t i = 0; i < kLines; ++i) {
        write_line(writer, i);
        if (i % 16 == 0) trelm_dbg_dump("dump", kBytes, 8, sizeof kBytes);
    }
}

// Checks that the lines of the log file are whole. Each begins with a time stamp.
uint64_t count_whole_lines() {
    const std::regex whole_line(".{15}: writer\\(\\d\\): a line in two pieces, number \\d+");
    std::ifstream file("/var/tmp/libtrelm.log");  // of the simulated host
    uint64_t whole = 0;
    for (std::string line; std::getline(file, line);) whole += std::regex_match(line, whole_line);
    return whole;
}

}  // namespace

int main() {
    const hostsim::Host host(hostsim::hosts::empty());
    if (freopen("/dev/null", "w", stderr) == nullptr) return 1;
    setenv("TRELM_API_DEBUG", "7", 1);
    trelm_set_debug_level();
    std::vector<std::thread> threads;
    for (uint64_t writer = 0; writer < kThreads; ++writer) threads.emplace_back(write_lines, writer);
    unsigned failures = 0;
    // Forks children that log while the threads of their parent log.
    for (unsigned i = 0; i < kForks; ++i)
        failures += trelm::test::in_child([i] { return write_line(kThreads, i); }) != 0;
    for (std::thread& thread : threads) thread.join();

    constexpr uint64_t kWanted = kThreads * kLines + kForks;
    const uint64_t whole = count_whole_lines();
    failures += whole != kWanted;
    fmt::print("logged {} lines of {} threads and {} children, {} whole, {} failures\n", kWanted, kThreads,
               kForks, whole, failures);
    return failures == 0 ? 0 : 1;
}
