// listen_socket.h - the socket that a server listens on: TCP on an address of either family, or a Unix socket.
#pragma once

#include <cstdint>
#include <string>

namespace trelmctl::metrics {

// ADDRESS:PORT, [ADDRESS]:PORT, PORT or :PORT (on the loopback address), or unix:PATH.
struct ListenAddress {
    std::string host = "127.0.0.1";
    std::string port;       // number or name of a service
    std::string unix_path;  // in their place where it is not empty
};

// Throws CommandFailed where the text is none.
ListenAddress parse_listen_address(const std::string& text);

// Throws CommandFailed. A Unix socket can be reached by its owner and group, and its name goes with it; so does
// one that a process left behind that is gone.
class ListenSocket {
  public:
    explicit ListenSocket(const ListenAddress& address);
    ~ListenSocket();
    ListenSocket(const ListenSocket&) = delete;
    ListenSocket& operator=(const ListenSocket&) = delete;

    int fd() const { return fd_; }
    // As it is now, with the port that was chosen where 0 was asked for.
    std::string name() const;
    // Whether other machines may reach it.
    bool is_open_to_others() const;

  private:
    void listen_on_path();
    void listen_on_port(const ListenAddress& address);

    int fd_ = -1;
    std::string unix_path_;
};

}  // namespace trelmctl::metrics
