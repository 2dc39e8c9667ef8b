#include "lookout.h"

#include <csignal>
#include <system_error>
#include <thread>

namespace trelmctl {

void Lookout::start(const Wishes& wishes) {
    if (is_under_way()) return;
    // Signals are for the caller: this thread and those that it starts hold them back.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        look_ = std::async(std::launch::async, [this, wishes] { return host_.look(wishes); });
    } catch (const std::system_error&) {
        // Without memory for a thread this look is left out.
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

std::optional<HostLook> Lookout::take(std::chrono::milliseconds patience) {
    if (!look_.valid()) std::this_thread::sleep_for(patience);
    if (!look_.valid() || look_.wait_for(patience) != std::future_status::ready) return std::nullopt;
    HostLook look = look_.get();
    const bool is_loaded = look.answer == Answer::here && !look.adapters.empty();
    const bool can_be_told = look.answer == Answer::here || look.answer == Answer::failed;
    if (!was_loaded_ && !is_loaded && can_be_told)
        const LoadedHost explained;  // fails likewise, and says why
    was_loaded_ = was_loaded_ || is_loaded;
    return look;
}

bool Lookout::is_stuck() {
    if (look_.valid()) look_.wait();
    return host_.is_stuck();
}

}  // namespace trelmctl
