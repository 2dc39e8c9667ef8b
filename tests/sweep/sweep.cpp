// sweep.cpp - makes every call of the library that can fail do so, in one run each: first only the n-th call,
// then all from the n-th on. Each run is a process with a time limit. Workers share the runs. The host, n and
// the manner of failure identify a run, which can be repeated alone.
#include "sweep.h"

#include <fmt/format.h>
#include <sys/sem.h>

#include <fstream>
#include <list>
#include <random>

#include "../support/child.h"
#include "../support/descriptors.h"
#include "../support/libc_replacements.h"
#include "../support/options.h"
#include "host.h"

namespace {

using namespace trelm::sweep;
using trelm::test::make_common;

constexpr const char* kManners[] = {"none", "one", "onwards"};
constexpr unsigned kSeconds = 60;  // a run that takes longer has hung

struct Chore {
    size_t host;
    Failing failing;
    uint64_t n;
};

// The reports of the workers.
struct Tally {
    std::atomic<uint64_t> runs, failures;
};

// What the library must have released after the free.
void check_nothing_is_kept(Trail& trail, size_t descriptors) {
    if (live_blocks() != 0) complain(trail, fmt::format("{} blocks were not freed", live_blocks()));
    const size_t open = trelm::test::open_descriptors();
    if (open != descriptors)
        complain(trail, fmt::format("{} descriptors were open, {} before", open, descriptors));
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);) {
        if (line.find("trelm_shared.dat") != line.npos) complain(trail, "the shared file was still mapped");
    }
}

int run_in_child(const Chore& chore, Trail& trail) {
    alarm(kSeconds);  // ends the process
    if (freopen("/dev/null", "w", stderr) == nullptr) return 1;
    const size_t descriptors = trelm::test::open_descriptors();
    arm(chore.failing, chore.n, trail);
    use_library(kHosts[chore.host], trail);
    disarm();
    check_nothing_is_kept(trail, descriptors);
    use_library_again(kHosts[chore.host], trail);
    check_nothing_is_kept(trail, descriptors);
    if (chore.failing != Failing::none && trail.first_failed == nullptr)
        complain(trail, "the call that was to fail was never made");
    return 0;
}

// Resets what the processes of the host share.
void clear_host() {
    std::error_code ignored;
    for (const char* path : {"/tmp/trelm_shared.dat", "/var/tmp/libtrelm.log"})
        std::filesystem::remove(path, ignored);
    for (const key_t key : {0x32C, 0x373}) {
        if (const int set = semget(key, 0, 0); set >= 0) semctl(set, 0, IPC_RMID);
    }
}

// One run on the present host. Prints what was wrong. Returns whether nothing was.
bool run(const Chore& chore, Trail& trail) {
    trail = {};
    const int status = trelm::test::in_child([&] { return run_in_child(chore, trail); });
    clear_host();
    if (status == 0 && trail.complaint[0] == '\0') return true;
    const char* const ending = status == -SIGALRM ? "hung" : status < 0 ? strsignal(-status) : "ended";
    fmt::print(stderr, "sweep: {} (repeat: --host {} --call {} --manner {}): {} {:#x}: {}\n",
               trail.first_failed == nullptr ? "?" : trail.first_failed, kHosts[chore.host].name, chore.n,
               kManners[static_cast<size_t>(chore.failing)], ending, status, trail.complaint);
    return false;
}

void work_off(const std::vector<Chore>& chores, size_t worker, size_t workers, Tally& tally) {
    Trail& trail = make_common<Trail>();
    for (size_t host = 0; host < kSweptHosts; ++host) {
        const hostsim::Host running(kHosts[host].model());
        for (size_t i = worker; i < chores.size(); i += workers) {
            if (chores[i].host != host) continue;
            if (!run(chores[i], trail)) ++tally.failures;
            ++tally.runs;
        }
    }
}

void work_off_in_processes(const std::vector<Chore>& chores, Tally& tally) {
    const size_t workers = std::max(1U, std::thread::hardware_concurrency());
    std::list<trelm::test::Child> children;
    for (size_t worker = 0; worker < workers; ++worker)
        children.emplace_back([&, worker] { return work_off(chores, worker, workers, tally), 0; });
    for (trelm::test::Child& child : children) tally.failures += child.wait() != 0;
    if (tally.runs != chores.size()) ++tally.failures;
}

// Every call of a run without failures, or every n-th from a random one on.
std::vector<Chore> plan(uint64_t every, uint64_t& calls) {
    const uint64_t first = 1 + std::random_device{}() % every;
    std::vector<Chore> chores;
    Trail& trail = make_common<Trail>();
    for (size_t host = 0; host < kSweptHosts; ++host) {
        const hostsim::Host running(kHosts[host].model());
        if (!run({host, Failing::none, 0}, trail)) std::exit(1);
        const uint64_t counted = trail.calls;
        calls += counted;
        for (const Failing failing : {Failing::one, Failing::onwards}) {
            for (uint64_t n = first; n <= counted; n += every) chores.push_back({host, failing, n});
        }
    }
    return chores;
}

}  // namespace

int main(int argc, char** argv) {
    bool sample = false;
    std::string host = kHosts[0].name, manner = "one";
    unsigned call = 0;
    uint64_t calls = 0;
    trelm::test::read_options(
        argc, argv,
        "Makes every call of the library that can fail do so, and checks results, memory and descriptors.",
        {{"--sample", &sample, "Only every 16th call, from a random one on"},
         {"--host", &host, "Host of a single run", {"native", "legacy"}},
         {"--call", &call, "The call that fails in a single run"},
         {"--manner", &manner, "Whether it fails alone", {"one", "onwards"}}});
    if (!trelm::test::find_library()) throw std::logic_error("libtrelm.so is not in this process; link it");
    const Chore single{host == kHosts[0].name ? 0U : 1U, manner == "one" ? Failing::one : Failing::onwards,
                       call};
    Tally& tally = make_common<Tally>();
    work_off_in_processes(call != 0 ? std::vector{single} : plan(sample ? 16 : 1, calls), tally);
    fmt::print("swept {} calls on {} hosts, {} runs, {} failures\n", calls, kSweptHosts, tally.runs.load(),
               tally.failures.load());
    return tally.failures == 0 ? 0 : 1;
}
