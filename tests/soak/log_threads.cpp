// log_threads.cpp - several threads that write the log at once while the process forks: every line is whole,
// and ThreadSanitizer, where this is built with it, finds nothing to say.
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <thread>

#include "host.h"
#include "hosts.h"
#include "trelm_core.h"
#include "trelm_dbg.h"

// For ThreadSanitizer: a forked child never joins its parent's threads, and standard error is full of the
// log.
extern "C" [[gnu::visibility("default")]] const char* __tsan_default_options();
const char* __tsan_default_options() { return "report_thread_leaks=0:log_path=stdout"; }

namespace {

constexpr unsigned kThreads = 4;
constexpr uint64_t kLines = 200;
constexpr unsigned kForks = 10;
constexpr char kWords[] = "): a line in two pieces, number ";

void write_lines(uint64_t writer) {
    constexpr uint8_t bytes[] = {1, 2, 3, 4};
    for (uint64_t i = 0; i < kLines; ++i) {
        trelm_dbg_print("writer", "(", writer, 10, 0);
        trelm_dbg_print(nullptr, kWords, i, 10, 1);
        if (i % 16 == 0) trelm_dbg_dump("dump", bytes, 8, sizeof bytes);
    }
}

// A child that logs while the threads of its parent do.
bool fork_and_log(unsigned number) {
    const pid_t child = fork();
    if (child == 0) {
        trelm_dbg_print("writer", "(", kThreads, 10, 0);
        trelm_dbg_print(nullptr, kWords, number, 10, 1);
        _exit(0);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && status == 0;
}

// Whole lines of the log file; a stamp of the time stands before each.
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
    for (unsigned i = 0; i < kForks; ++i) failures += !fork_and_log(i);
    for (std::thread& thread : threads) thread.join();

    constexpr uint64_t kWanted = kThreads * kLines + kForks;
    const uint64_t whole = count_whole_lines();
    failures += whole != kWanted;
    std::printf("logged %" PRIu64 " lines of %u threads and %u children, %" PRIu64 " whole, %u failures\n",
                kWanted, kThreads, kForks, whole, failures);
    return failures == 0 ? 0 : 1;
}
