// http_server_test.cpp - the exporter's server with a shorter time limit for requests than the tool sets.
#include "http_server.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace trelmctl::metrics;

int connected_to(const ListenSocket& server) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(server.fd(), reinterpret_cast<sockaddr*>(&address), &length);
    const int client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&address), length), 0);
    return client;
}

bool is_ended_within(int client, int milliseconds) {
    pollfd waiting{client, POLLIN, 0};
    char byte = 0;
    return poll(&waiting, 1, milliseconds) == 1 && recv(client, &byte, 1, 0) <= 0;
}

TEST(HttpServer, EndsARequestThatComesByteByByteForTooLong) {
    const ListenSocket socket(parse_listen_address("127.0.0.1:0"));
    SharedSampling sampling({}, nullptr);
    const HttpServer server(socket, {}, sampling, std::chrono::milliseconds(100));
    const int client = connected_to(socket);
    int bytes = 0;
    // Never idle long enough for the server's idle timeout.
    for (; bytes < 600 && !is_ended_within(client, 100); ++bytes) send(client, "x", 1, MSG_NOSIGNAL);
    EXPECT_LT(bytes, 600);
    close(client);
}

}  // namespace
