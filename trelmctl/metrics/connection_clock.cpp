#include "connection_clock.h"

#include <sys/socket.h>

namespace trelmctl::metrics {

ConnectionClock::ConnectionClock(std::chrono::duration<double> allowed)
    : allowed_(allowed), thread_([this] { work(); }) {}

ConnectionClock::~ConnectionClock() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

void ConnectionClock::start(MHD_Connection* connection) {
    const std::lock_guard lock(mutex_);
    started_[connection] = Clock::now();
}

void ConnectionClock::forget(MHD_Connection* connection) {
    const std::lock_guard lock(mutex_);
    started_.erase(connection);
}

void ConnectionClock::work() {
    std::unique_lock lock(mutex_);
    while (!changed_.wait_for(lock, std::chrono::seconds(1), [this] { return ending_; })) {
        const auto now = Clock::now();
        for (const auto& [connection, started] : started_) {
            if (now - started < allowed_) continue;
            // The server sees the end of the connection and closes it. Its descriptor is valid until
            // forget().
            const auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
            if (info != nullptr) shutdown(info->connect_fd, SHUT_RDWR);
        }
    }
}

}  // namespace trelmctl::metrics
