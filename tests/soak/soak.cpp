// soak.cpp - crowds of processes load the library, work, free it and are killed, on one simulated host with
// real semaphores and the real process listing. After its time the last processes of a crowd end by
// themselves. A single process then must find everything in order and leave nothing behind.
#include <sys/sem.h>
#include <sys/wait.h>

#include <CLI/CLI.hpp>
#include <fstream>
#include <random>
#include <regex>

#include "crowd.h"
#include "host.h"
#include "host_builders.h"

namespace trelm::soak {
namespace {

namespace fs = std::filesystem;

constexpr char kLogFile[] = "/var/tmp/libtrelm.log";
constexpr int64_t kSecond = 1'000'000'000;
constexpr int64_t kCrowdTime = kSecond;
// The crowd hangs if no process makes progress for this long. The speed of the progress does not matter.
constexpr int64_t kPatience = 60 * kSecond;
constexpr unsigned kLargestCrowd = 6;  // in a small crowd, a process is often the last one
// The approximate number of calls in a round at which a process can be killed; more with the log on.
constexpr unsigned kFatalCalls = 60;
constexpr unsigned kFatalCallsWithLog = 2000;

// Kinds of process: one that may be killed, one that may not, and one that waits for others before it removes
// the semaphore.
enum class Part { mortal, survivor, dawdler };

class Soak {
  public:
    explicit Soak(unsigned seed) : random_(seed) {}

    void run_crowd() {
        ++crowds_;
        const unsigned size = 2 + pick(kLargestCrowd - 1);
        const int64_t end = now() + kCrowdTime;
        while (now() < end && crowd->failures == 0) {
            while (living_.size() < size) start(Part::mortal);
            kill_some();
            step();
        }
        see_all_end();
    }

    // Newcomers wait for the semaphore while the last process is about to remove it.
    void run_meeting() {
        crowd->removing = false;
        start(Part::dawdler);
        while (!crowd->removing && !living_.empty()) step();
        for (int newcomer = 0; newcomer < 2; ++newcomer) start(Part::survivor);
        see_all_end();
    }

    // Checks the remains of the crowd: whole lines in the log, and nothing that hinders a single process.
    void look_after_crowd() {
        forget_all_processes();
        check_log();
        kills_in_crowd_ = 0;
        start(Part::survivor);
        see_all_end();
        if (fs::exists(kSharedFile)) fail("the last process left the shared file behind");
        if (semget(kDatabaseKey, 0, 0) >= 0) fail("the last process left its semaphore set behind");
        std::error_code ignored;
        fs::remove(kLogFile, ignored);
    }

    // True if there was no failure.
    bool report(unsigned abuses) const {
        if (crowd->slots_checked < crowd->rounds)
            fail("{} slots were checked in {} rounds", crowd->slots_checked.load(), crowd->rounds.load());
        fmt::print(
            "soaked {} processes in {} crowds: {} kills survived ({} with the guard), {} rounds, {} slot "
            "resets, {} log lines, longest wait after a kill {} ms, {} abuses, {} failures\n",
            last_number_, crowds_, kills_, crowd->killed_inside, crowd->rounds, crowd->resets, log_lines_,
            crowd->longest_wait / 1'000'000, abuses, crowd->failures);
        return crowd->failures == 0;
    }

  private:
    void step() {
        usleep(1000);
        reap();
        demand_steps();
    }
    void see_all_end() {
        while (!living_.empty()) step();
    }

    unsigned pick(unsigned below) { return static_cast<unsigned>(random_() % below); }

    void start(Part part) {
        User user;
        user.number = ++last_number_;
        user.rounds = part == Part::dawdler ? 1 : 1 + pick(4);
        user.log_flags = pick(3) == 0 ? 7 : 0;
        const unsigned fatal_calls = user.log_flags == 0 ? kFatalCalls : kFatalCallsWithLog;
        user.fatal_call = part == Part::mortal && pick(2) == 0 ? 1 + pick(fatal_calls) : 0;
        user.dawdles = part == Part::dawdler;
        if (user.number >= kMostProcesses) return fail("there were too many processes");
        const pid_t id = fork();
        if (id == 0) use_library(user);
        living_[id] = user.number;
    }

    void kill_some() {
        if (living_.empty() || pick(200) != 0) return;
        const auto victim = std::next(living_.begin(), pick(static_cast<unsigned>(living_.size())));
        crowd->gone[victim->second] = true;
        if (crowd->inside == victim->second) crowd->killed_at = now();
        kill(victim->first, SIGKILL);
    }

    void reap() {
        int status = 0;
        for (pid_t id = waitpid(-1, &status, WNOHANG); id > 0; id = waitpid(-1, &status, WNOHANG)) {
            const auto found = living_.find(id);
            if (found == living_.end()) continue;
            const bool killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
            if (!killed && status != 0) fail("process {} ended with status {:#x}", found->second, status);
            if (killed) ++kills_, ++kills_in_crowd_;
            crowd->gone[found->second] = true;
            living_.erase(found);
            stepped_at_ = now();
        }
    }

    void demand_steps() {
        const uint64_t steps = crowd->entries + crowd->rounds;
        if (steps != steps_) stepped_at_ = now();
        steps_ = steps;
        if (now() - stepped_at_ < kPatience) return;
        fail("nobody of {} processes went on", living_.size());
        for (const auto& [id, number] : living_) kill(id, SIGKILL);
        stepped_at_ = now();
    }

    // "Nov 22 21:05:09: text", with one stamp. A process that is killed while it writes may leave one
    // incomplete line.
    static bool is_whole(const std::string& line) {
        static const std::regex stamp("[A-Z][a-z]{2} [ \\d]\\d \\d\\d:\\d\\d:\\d\\d: ");
        const std::sregex_iterator first(line.begin(), line.end(), stamp), end;
        return first != end && first->position() == 0 && std::next(first) == end;
    }

    void check_log() {
        std::ifstream file(kLogFile);
        uint64_t broken = 0;
        std::string first;
        for (std::string line; std::getline(file, line); ++log_lines_) {
            if (is_whole(line)) continue;
            if (++broken == 1) first = line;
        }
        if (broken > kills_in_crowd_)
            fail("{} log lines were broken by {} kills, such as '{}'", broken, kills_in_crowd_, first);
    }

    std::mt19937 random_;
    std::map<pid_t, uint32_t> living_;
    uint32_t last_number_ = 0;
    uint64_t crowds_ = 0, kills_ = 0, kills_in_crowd_ = 0, log_lines_ = 0, steps_ = 0;
    int64_t stepped_at_ = now();
};

int soak(unsigned seconds, unsigned seed) {
    fmt::print("soak: seed {}\n", seed);
    fflush(stdout);
    const hostsim::Host host(hostsim::hosts::kron_ports(1));
    const int64_t end = now() + seconds * kSecond;
    const unsigned abuses = run_abuses();
    Soak soak(seed);
    do {
        soak.run_crowd();
        soak.look_after_crowd();
        soak.run_meeting();
    } while (now() < end && crowd->failures == 0);
    return soak.report(abuses) ? 0 : 1;
}

}  // namespace
}  // namespace trelm::soak

int main(int argc, char** argv) {
    unsigned seconds = 60;
    unsigned seed = std::random_device{}();
    CLI::App app("Crowds of processes that load the library, work, free it and are killed.");
    app.add_option("--seconds", seconds, "How long crowds go on coming");
    app.add_option("--seed", seed, "What chance starts from");
    CLI11_PARSE(app, argc, argv);
    return trelm::soak::soak(seconds, seed);
}
