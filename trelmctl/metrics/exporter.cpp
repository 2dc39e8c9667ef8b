#include "exporter.h"

#include <fmt/format.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>

#include "http_server.h"
#include "output.h"

namespace trelmctl::metrics {
namespace {

constexpr std::chrono::seconds kRequestTime{60};  // in addition to the time for sampling

// Blocks the signals in this thread and all threads that it starts later, so that sigwait() receives them.
sigset_t hold_back_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

void warn_of_open_door(const ListenSocket& socket, const WebConfig& config) {
    if (!socket.is_open_to_others() || !config.users.empty()) return;
    tell(
        fmt::format("trelmctl: warning: anyone who reaches {} can read the metrics: name users in a file for "
                    "--web-config, or listen on a loopback address or unix:PATH\n",
                    socket.name()));
}

}  // namespace

void serve(const SamplerSettings& sampling, const std::string& address, const std::string& web_config,
           Draw draw) {
    const sigset_t signals = hold_back_signals();
    const WebConfig config = web_config.empty() ? WebConfig() : read_web_config(web_config);
    const ListenSocket socket(parse_listen_address(address));
    SharedSampling shared(sampling, draw);
    {
        const HttpServer server(socket, config, shared, kRequestTime + 2 * sampling.deadline);
        warn_of_open_door(socket, config);
        tell(fmt::format("trelmctl: serving metrics on {}\n", socket.name()));
        int signal = 0;
        while (sigwait(&signals, &signal) != 0) {
        }
    }
    // A call that hangs cannot be aborted, and the library cannot be freed during a call.
    if (shared.is_stuck()) _exit(static_cast<int>(ExitStatus::done));
}

}  // namespace trelmctl::metrics
