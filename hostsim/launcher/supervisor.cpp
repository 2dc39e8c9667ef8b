#include "supervisor.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <system_error>

#include "exit_status.h"

namespace hostsim {
namespace {

constexpr int kLookEvery = 200;  // milliseconds
constexpr std::initializer_list<int> kForwarded{SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,
                                                SIGUSR1, SIGUSR2, SIGALRM, SIGWINCH};

// The janitor sends two: when the command has started, and when it has ended.
struct Notice {
    pid_t command;
    int status;  // in the form of waitpid
};

[[noreturn]] void fail(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

template <typename Call>
auto uninterrupted(const Call& call) {
    decltype(call()) result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result;
}

sigset_t forwarded_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : kForwarded) sigaddset(&set, signal);
    return set;
}

std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (const std::string& text : texts) result.push_back(const_cast<char*>(text.c_str()));
    result.push_back(nullptr);
    return result;
}

// ---- The command

[[noreturn]] void become(const Program& program, const sigset_t& mask) {
    const std::vector<char*> arguments = pointers(program.arguments);
    const std::vector<char*> environment = pointers(program.environment);
    sigprocmask(SIG_SETMASK, &mask, nullptr);
    std::signal(SIGXFSZ, program.at_size_limit);
    // execvp searches the command's PATH, which has the host's own commands.
    environ = const_cast<char**>(environment.data());
    execvp(arguments[0], arguments.data());
    const int error = errno;
    std::fprintf(stderr, "trelm-hostsim: %s: %s; name a program in PATH or give its path\n", arguments[0],
                 std::strerror(error));
    _exit(error == ENOENT ? kNotFound : kCannotExecute);
}

// ---- The janitor

// Closes the standard streams: a reader of the launcher's output must not wait for the janitor.
void let_go(std::span<const int> kept) {
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int fd : {0, 1, 2}) dup2(null, fd);
    std::vector<int> sorted(kept.begin(), kept.end());
    std::sort(sorted.begin(), sorted.end());
    unsigned first = 3;
    for (const int fd : sorted) {
        if (static_cast<unsigned>(fd) > first) close_range(first, static_cast<unsigned>(fd) - 1, 0);
        first = static_cast<unsigned>(fd) + 1;
    }
    close_range(first, ~0u, 0);
    if (chdir("/") != 0) return;  // the old directory then stays busy, which is harmless
}

void tell(int pipe, const Notice& notice) {
    uninterrupted([&] { return write(pipe, &notice, sizeof notice); });  // fails if the launcher has ended
}

// Waits for every process of the command, orphans included.
[[noreturn]] void watch(pid_t command, int pipe, const std::function<void()>& at_end) {
    Notice notice{command, 0};
    tell(pipe, notice);
    bool ended = false;
    bool told = false;
    for (;;) {
        int status = 0;
        const pid_t child = uninterrupted([&] { return waitpid(-1, &status, ended && !told ? WNOHANG : 0); });
        if (child < 0) break;
        if (child == command) {
            ended = true;
            notice.status = status;
        } else if (child == 0) {
            tell(pipe, notice);
            told = true;
        }
    }
    at_end();
    if (!told) tell(pipe, notice);
    _exit(0);
}

[[noreturn]] void be_janitor(const Program& program, const sigset_t& mask, std::vector<int> kept, int pipe,
                             const std::function<void()>& at_end) {
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) become(program, mask);
    kept.push_back(pipe);
    let_go(kept);
    if (child > 0) watch(child, pipe, at_end);
    at_end();
    _exit(kLauncherFailed);
}

// ---- The launcher

// The kernel sends a signal from the terminal to all foreground processes, so the command already has it. If
// the terminal hangs up, the kernel signals only the session leader, which may be this process.
void forward(int signals, pid_t command) {
    signalfd_siginfo info{};
    if (read(signals, &info, sizeof info) != sizeof info) return;
    if (info.ssi_code == SI_KERNEL && info.ssi_signo != SIGHUP) return;
    kill(command, static_cast<int>(info.ssi_signo));
}

int exit_status(int status) {
    return WIFSIGNALED(status) ? kSignalled + WTERMSIG(status) : WEXITSTATUS(status);
}

int await(int pipe, int signals, const std::function<void()>& look) {
    Notice notice{};
    if (uninterrupted([&] { return read(pipe, &notice, sizeof notice); }) != sizeof notice) {
        std::fputs("trelm-hostsim: no process could be created for the command\n", stderr);
        return kLauncherFailed;
    }
    std::array<pollfd, 2> waiting{{{pipe, POLLIN, 0}, {signals, POLLIN, 0}}};
    while (waiting[0].revents == 0) {
        waiting[1].revents = 0;
        poll(waiting.data(), waiting.size(), kLookEvery);
        if (waiting[1].revents != 0) forward(signals, notice.command);
        look();
    }
    look();  // reports an edit that the command made just before its end
    if (uninterrupted([&] { return read(pipe, &notice, sizeof notice); }) == sizeof notice)
        return exit_status(notice.status);
    std::fprintf(
        stderr,
        "trelm-hostsim: the process that watches over the command was killed; the command may still run\n");
    return kLauncherFailed;
}

}  // namespace

int supervise(const Program& program, std::span<const int> kept, const std::function<void()>& at_end,
              const std::function<void()>& look) {
    std::signal(SIGCHLD, SIG_DFL);  // a parent may have ignored it, and then waitpid returns no status
    sigset_t before;
    const sigset_t forwarded = forwarded_signals();
    sigprocmask(SIG_BLOCK, &forwarded, &before);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe2");
    const int signals = signalfd(-1, &forwarded, SFD_CLOEXEC);
    if (signals < 0) fail("signalfd");
    std::fflush(nullptr);
    const pid_t janitor = fork();
    if (janitor < 0) fail("fork");
    if (janitor == 0) be_janitor(program, before, {kept.begin(), kept.end()}, ends[1], at_end);
    close(ends[1]);
    return await(ends[0], signals, look);
}

}  // namespace hostsim
