// http_server.h - serves /metrics, /healthz and / on one thread that never waits. A request that needs a
// sample or a password check is suspended until another thread has the result.
#pragma once

#include <microhttpd.h>

#include <chrono>
#include <memory>
#include <string_view>

#include "connection_clock.h"
#include "listen_socket.h"
#include "shared_sampling.h"
#include "users.h"
#include "web_config.h"

namespace trelmctl::metrics {

class HttpServer {
  public:
    // Serves until it is destroyed. Closes a connection whose next request takes longer than `request_time`.
    // Throws CommandFailed.
    HttpServer(const ListenSocket& socket, const WebConfig& config, SharedSampling& sampling,
               std::chrono::duration<double> request_time);
    // Answers the requests in progress and stops the sampling.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

  private:
    struct Request;
    struct Reply;
    struct Callbacks;

    MHD_Result handle(MHD_Connection* connection, std::string_view url, std::string_view method,
                      Request& request);
    // True if the request may proceed. Otherwise `result` is the value for the callback to return.
    bool admit(MHD_Connection* connection, Request& request, MHD_Result& result);
    MHD_Result serve_sample(MHD_Connection* connection, Form form, Request& request);
    MHD_Result send(MHD_Connection* connection, const Reply& reply) const;

    const WebConfig config_;
    SharedSampling& sampling_;
    Users users_;
    ConnectionClock clock_;
    MHD_Daemon* daemon_ = nullptr;
};

}  // namespace trelmctl::metrics
