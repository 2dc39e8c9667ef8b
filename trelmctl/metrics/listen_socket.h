// listen_socket.h - the socket that a server listens on: TCP over IPv4 or IPv6, or a Unix socket.
#pragma once

#include <cstdint>
#include <string>

namespace trelmctl::metrics {

// ADDRESS:PORT, [ADDRESS]:PORT, PORT or :PORT (on the loopback address), or unix:PATH.
struct ListenAddress {
    std::string host = "127.0.0.1";
    std::string port;       // number or name of a service
    std::string unix_path;  // used instead of host and port if not empty
};

// Throws CommandFailed if the text is not such an address.
ListenAddress parse_listen_address(const std::string& text);

// Throws CommandFailed. A Unix socket is open to its owner and group. The destructor removes its name; the
// constructor removes a name that an ended process left behind.
class ListenSocket {
  public:
    explicit ListenSocket(const ListenAddress& address);
    ~ListenSocket();
    ListenSocket(const ListenSocket&) = delete;
    ListenSocket& operator=(const ListenSocket&) = delete;

    int fd() const { return fd_; }
    // The actual address: if port 0 was requested, it contains the port that the system chose.
    std::string name() const;
    // Whether other machines may be able to reach it.
    bool is_open_to_others() const;

  private:
    void listen_on_path();
    void listen_on_port(const ListenAddress& address);

    int fd_ = -1;
    std::string unix_path_;
};

}  // namespace trelmctl::metrics
