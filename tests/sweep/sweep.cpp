// sweep.cpp - makes every call of the library that can fail do so, one run each: first the n-th call alone,
// then all from the n-th on. Each run is a process of its own with a time limit; workers share the runs. A
// run is named by host, n and manner, and can be repeated alone by that name.
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "../support/descriptors.h"
#include "../support/stand_before.h"
#include "failing_calls.h"
#include "host.h"
#include "scenario.h"

namespace {

using namespace trelm::sweep;

constexpr const char* kManners[] = {"none", "one", "onwards"};
constexpr const char* kSharedFile = "/tmp/trelm_shared.dat";  // of the simulated host
constexpr const char* kLogFile = "/var/tmp/libtrelm.log";

struct Options {
    unsigned every = 1;
    uint64_t first = 0;  // where a sample starts
    unsigned seconds = 60;
    unsigned workers = std::max(1U, std::thread::hardware_concurrency());
    std::string host;  // of the only run
    uint64_t call = 0;
    std::string manner = "one";
};

struct Chore {
    size_t host;
    Failing failing;
    uint64_t n;
};

// What workers report to the whole.
struct Tally {
    std::atomic<uint64_t> runs;
    std::atomic<uint64_t> failures;
};

template <typename Shared>
Shared* make_shared_memory() {
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return new (memory) Shared{};
}

size_t mappings_of_shared_file() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("trelm_shared.dat") != std::string::npos;
    return count;
}

// What the library must not have kept once it is freed.
void check_nothing_is_kept(Trail& trail, size_t descriptors) {
    if (live_blocks() != 0) complain(trail, "%zu blocks of memory were not freed", live_blocks());
    const size_t open = trelm::test::open_descriptors();
    if (open != descriptors) complain(trail, "%zu descriptors were open, %zu before", open, descriptors);
    if (const size_t maps = mappings_of_shared_file(); maps != 0)
        complain(trail, "the shared file was still mapped %zu times", maps);
}

[[noreturn]] void run_in_child(const Chore& chore, unsigned seconds, Trail& trail) {
    alarm(seconds);  // ends the process
    if (freopen("/dev/null", "w", stderr) == nullptr) _exit(1);
    const size_t descriptors = trelm::test::open_descriptors();
    arm(chore.failing, chore.n, trail);
    use_library(kHosts[chore.host], trail);
    disarm();
    check_nothing_is_kept(trail, descriptors);
    use_library_again(kHosts[chore.host], trail);
    check_nothing_is_kept(trail, descriptors);
    if (chore.failing != Failing::none && trail.first_failed == nullptr)
        complain(trail, "the call that was to fail was never made");
    _exit(0);
}

void remove_set(key_t key) {
    if (const int set = semget(key, 0, 0); set >= 0) semctl(set, 0, IPC_RMID);
}

// Puts the host's shared things back to nothing.
void clear_host() {
    std::error_code ignored;
    std::filesystem::remove(kSharedFile, ignored);
    std::filesystem::remove(kLogFile, ignored);
    for (const key_t key : {0x32C, 0x373}) remove_set(key);
}

std::string how_it_ended(int status) {
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) return "hung";
    if (WIFSIGNALED(status)) return std::string("was ended by ") + strsignal(WTERMSIG(status));
    if (WEXITSTATUS(status) != 0) return "exited with " + std::to_string(WEXITSTATUS(status));
    return "";
}

// One run; what was wrong with it, empty where nothing was.
std::string run(const Chore& chore, unsigned seconds, Trail& trail) {
    trail = {};
    const pid_t child = fork();
    if (child == 0) run_in_child(chore, seconds, trail);
    int status = 0;
    while (waitpid(child, &status, 0) != child) {
    }
    clear_host();
    const std::string ending = how_it_ended(status);
    if (ending.empty() || trail.complaint[0] == '\0') return ending.empty() ? trail.complaint : ending;
    return ending + "; before that, " + trail.complaint;
}

uint64_t count_calls(size_t host) {
    Trail& trail = *make_shared_memory<Trail>();
    const hostsim::Host running(kHosts[host].model());
    const std::string wrong = run({host, Failing::none, 0}, 60, trail);
    if (!wrong.empty()) {
        std::fprintf(stderr, "sweep: on the %s host without any failure: %s\n", kHosts[host].name,
                     wrong.c_str());
        std::exit(1);
    }
    return trail.calls;
}

void work_off(const std::vector<Chore>& chores, size_t worker, const Options& options, Tally& tally) {
    Trail& trail = *make_shared_memory<Trail>();
    for (size_t host = 0; host < kSweptHosts; ++host) {
        const hostsim::Host running(kHosts[host].model());
        for (size_t i = worker; i < chores.size(); i += options.workers) {
            const Chore& chore = chores[i];
            if (chore.host != host) continue;
            const std::string wrong = run(chore, options.seconds, trail);
            ++tally.runs;
            if (wrong.empty()) continue;
            ++tally.failures;
            std::fprintf(stderr, "sweep: %s (repeat: --host %s --call %llu --manner %s): %s\n",
                         trail.first_failed == nullptr ? "?" : trail.first_failed, kHosts[host].name,
                         static_cast<unsigned long long>(chore.n),
                         kManners[static_cast<size_t>(chore.failing)], wrong.c_str());
        }
    }
}

void work_off_in_processes(const std::vector<Chore>& chores, const Options& options, Tally& tally) {
    std::vector<pid_t> workers;
    for (size_t worker = 0; worker < options.workers; ++worker) {
        const pid_t id = fork();
        if (id == 0) {
            work_off(chores, worker, options, tally);
            std::exit(0);
        }
        workers.push_back(id);
    }
    for (const pid_t id : workers) {
        int status = 0;
        if (waitpid(id, &status, 0) != id || status != 0) ++tally.failures;
    }
}

std::vector<Chore> plan(const Options& options, uint64_t& calls) {
    std::vector<Chore> chores;
    for (size_t host = 0; host < kSweptHosts; ++host) {
        const uint64_t counted = count_calls(host);
        calls += counted;
        for (const Failing failing : {Failing::one, Failing::onwards}) {
            for (uint64_t n = 1 + options.first; n <= counted; n += options.every)
                chores.push_back({host, failing, n});
        }
    }
    return chores;
}

std::vector<Chore> plan_one(const Options& options) {
    Chore chore{0, options.manner == "one" ? Failing::one : Failing::onwards, options.call};
    while (chore.host + 1 < kSweptHosts && options.host != kHosts[chore.host].name) ++chore.host;
    return {chore};
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    bool sample = false;
    CLI::App app("Makes every call of the library that can fail do so, and looks what comes of it.");
    app.add_flag("--sample", sample, "Only every 16th call, from a random one on");
    app.add_option("--every", options.every, "Only every so manieth call")->check(CLI::PositiveNumber);
    app.add_option("--first", options.first, "How many calls to pass over at the start");
    app.add_option("--workers", options.workers, "Processes that share the runs")->check(CLI::PositiveNumber);
    app.add_option("--seconds", options.seconds, "After how long a run counts as hung")
        ->check(CLI::PositiveNumber);
    app.add_option("--host", options.host, "Host of a single run")
        ->check(CLI::IsMember({"native", "legacy"}));
    app.add_option("--call", options.call, "The call that fails in a single run");
    app.add_option("--manner", options.manner, "Whether that call fails alone")
        ->check(CLI::IsMember({"one", "onwards"}));
    CLI11_PARSE(app, argc, argv);
    if (!trelm::test::find_library()) {
        std::fprintf(stderr, "sweep: libtrelm.so is not in this process; link it\n");
        return 1;
    }
    if (sample) {
        options.every = 16;
        options.first = std::random_device{}() % options.every;
    }

    uint64_t calls = 0;
    const std::vector<Chore> chores = options.call != 0 ? plan_one(options) : plan(options, calls);
    auto& tally = *make_shared_memory<Tally>();
    work_off_in_processes(chores, options, tally);
    if (tally.runs != chores.size()) ++tally.failures;
    if (options.every > 1)
        std::printf("sampled with --every %u --first %llu\n", options.every,
                    static_cast<unsigned long long>(options.first));
    std::printf("swept %llu calls on %zu hosts, %llu runs, %llu failures\n",
                static_cast<unsigned long long>(calls), kSweptHosts,
                static_cast<unsigned long long>(tally.runs.load()),
                static_cast<unsigned long long>(tally.failures.load()));
    return tally.failures == 0 ? 0 : 1;
}
