#include "deadline.h"

#include <fmt/format.h>
#include <sys/time.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <nlohmann/json.hpp>
#include <string>

#include "failure.h"

namespace trelmctl {
namespace {

// Composed in advance, because a signal handler must not allocate memory.
std::string message;
int message_fd = STDERR_FILENO;

void give_up(int) {
    [[maybe_unused]] const ssize_t written = write(message_fd, message.data(), message.size());
    _exit(static_cast<int>(ExitStatus::failed));
}

}  // namespace

void set_deadline(double seconds, bool json) {
    const Failure failure = tool_failure("TIMEOUT", fmt::format("no answer within {} seconds", seconds),
                                         "check the target, the link and the driver");
    message_fd = json ? STDOUT_FILENO : STDERR_FILENO;
    message =
        (json ? Json{{"format_version", 1}, {"error", to_json(failure)}}.dump(2) : sentence(failure)) + "\n";
    std::signal(SIGALRM, give_up);
    itimerval timer{};
    timer.it_value.tv_sec = static_cast<time_t>(seconds);
    timer.it_value.tv_usec = static_cast<suseconds_t>((seconds - std::floor(seconds)) * 1e6);
    setitimer(ITIMER_REAL, &timer, nullptr);
}

}  // namespace trelmctl
