#include "exporter.h"

#include <fmt/format.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>

#include "http_server.h"
#include "output.h"

namespace trelmctl::metrics {
namespace {

// Held back from all threads to come, so that the one that waits for them gets them.
sigset_t hold_back_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM}) sigaddset(&signals, signal);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

}  // namespace

void serve(const SamplerSettings& sampling, const std::string& address, const std::string& web_config,
           Draw draw) {
    const sigset_t signals = hold_back_signals();
    const WebConfig config = web_config.empty() ? WebConfig() : read_web_config(web_config);
    const ListenSocket socket(parse_listen_address(address));
    SharedSampling shared(sampling, draw);
    {
        const HttpServer server(socket, config, shared, 2 * sampling.deadline);
        tell(fmt::format("trelmctl: serving metrics on {}\n", socket.name()));
        int signal = 0;
        while (sigwait(&signals, &signal) != 0) {
        }
    }
    // Nobody can end a call that hangs, and the library cannot be freed around it.
    if (shared.is_stuck()) _exit(static_cast<int>(ExitStatus::done));
}

}  // namespace trelmctl::metrics
