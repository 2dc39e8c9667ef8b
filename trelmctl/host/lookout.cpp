#include "lookout.h"

#include <csignal>
#include <system_error>
#include <thread>

namespace trelmctl {

void Lookout::start(const Wishes& wishes) {
    if (is_under_way()) return;
    // Only the caller's thread handles signals. The new thread, and those that it starts, inherit a mask that
    // blocks them.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    try {
        look_ = std::async(std::launch::async, [this, wishes] { return host_.look(wishes); });
    } catch (const std::system_error&) {
        // The thread could not be created. This look is skipped.
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
        const LoadedHost explained;  // fails in the same way and reports why
    was_loaded_ = was_loaded_ || is_loaded;
    return look;
}

bool Lookout::is_stuck() {
    if (look_.valid()) look_.wait();
    return host_.is_stuck();
}

}  // namespace trelmctl
