// log_threads.cpp - several threads that write the log at once while the process forks: every line is whole,
// and ThreadSanitizer, where this is built with it, finds nothing to say.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

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
constexpr char kLogFile[] = "/var/tmp/libtrelm.log";  // of the simulated host
constexpr char kWords[] = "): a line in two pieces, number ";

void write_lines(uint64_t writer) {
    constexpr uint8_t bytes[] = {1, 2, 3, 4};
    for (uint64_t i = 0; i < kLines; ++i) {
        trelm_dbg_print("writer", "(", writer, 10, 0);
        trelm_dbg_print(nullptr, kWords, i, 10, 1);
        if (i % 16 == 0) trelm_dbg_dump("dump", bytes, 8, sizeof bytes);
    }
}

// Children that log while the threads of their parent do.
bool fork_and_log() {
    bool all_ended = true;
    for (unsigned i = 0; i < kForks; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            trelm_dbg_print("writer", "(", kThreads, 10, 0);
            trelm_dbg_print(nullptr, kWords, i, 10, 1);
            _exit(0);
        }
        int status = 0;
        all_ended = waitpid(child, &status, 0) == child && status == 0 && all_ended;
    }
    return all_ended;
}

// Whole lines of the log file; a stamp of the time stands before each.
uint64_t count_whole_lines() {
    std::ifstream file(kLogFile);
    uint64_t whole = 0;
    for (std::string line; std::getline(file, line);) {
        const size_t begin = line.find("writer(");
        unsigned long writer = 0;
        unsigned long number = 0;
        int length = -1;
        if (begin == std::string::npos) continue;
        sscanf(line.c_str() + begin, "writer(%lu): a line in two pieces, number %lu%n", &writer, &number,
               &length);
        whole += length >= 0 && begin + static_cast<size_t>(length) == line.size();
    }
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
    const bool children_ended = fork_and_log();
    for (std::thread& thread : threads) thread.join();

    constexpr uint64_t kWanted = kThreads * kLines + kForks;
    const uint64_t whole = count_whole_lines();
    const unsigned failures = (children_ended ? 0 : 1) + (whole == kWanted ? 0 : 1);
    std::printf("logged %llu lines of %u threads and %u children, %llu whole, %u failures\n",
                static_cast<unsigned long long>(kWanted), kThreads, kForks,
                static_cast<unsigned long long>(whole), failures);
    return failures == 0 ? 0 : 1;
}
