// connection_clock.h - gives every connection a time limit for its next request. A client that sends or reads
// a byte now and then is never idle, and would otherwise keep its connection for ever.
#pragma once

#include <microhttpd.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>

namespace trelmctl::metrics {

class ConnectionClock {
  public:
    explicit ConnectionClock(std::chrono::duration<double> allowed);
    ~ConnectionClock();
    ConnectionClock(const ConnectionClock&) = delete;
    ConnectionClock& operator=(const ConnectionClock&) = delete;

    // A new connection, or one that has completed a request.
    void start(MHD_Connection* connection);
    // A connection that is about to be closed.
    void forget(MHD_Connection* connection);

  private:
    using Clock = std::chrono::steady_clock;

    void work();

    const std::chrono::duration<double> allowed_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool ending_ = false;
    std::map<MHD_Connection*, Clock::time_point> started_;
    std::thread thread_;
};

}  // namespace trelmctl::metrics
