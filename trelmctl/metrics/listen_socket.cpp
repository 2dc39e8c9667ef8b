#include "listen_socket.h"

#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "failure.h"
#include "text.h"

namespace trelmctl::metrics {
namespace {

constexpr int kBacklog = 1024;

[[noreturn]] void fail(const std::string& what) {
    Failure failure = tool_failure("LISTEN", what, "give another address with --listen");
    failure.operation = "listening";
    throw CommandFailed(std::move(failure));
}

[[noreturn]] void fail_with(const std::string& name, int error) {
    fail(fmt::format("{}: {}", escaped(name), std::strerror(error)));
}

int open_socket(int family) { return socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0); }

sockaddr_un unix_address(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) fail_with(path, ENAMETOOLONG);
    path.copy(address.sun_path, path.size());
    return address;
}

template <typename Address>
const sockaddr* generic(const Address& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

// The name of a Unix socket stays after its process has ended. This removes a name on which no process
// listens.
void remove_left_behind(const std::string& path, const sockaddr_un& address) {
    struct stat there {};
    if (lstat(path.c_str(), &there) != 0 || !S_ISSOCK(there.st_mode)) return;
    const int probe = open_socket(AF_UNIX);
    const bool refused = connect(probe, generic(address), sizeof address) != 0 && errno == ECONNREFUSED;
    close(probe);
    if (refused) unlink(path.c_str());
}

}  // namespace

ListenAddress parse_listen_address(const std::string& text) {
    ListenAddress address;
    if (text.starts_with("unix:")) {
        address.unix_path = text.substr(5);
        if (address.unix_path.empty()) fail("a path is missing after unix:");
        return address;
    }
    const std::size_t colon = text.rfind(':');
    address.port = text.substr(colon == std::string::npos ? 0 : colon + 1);
    if (colon != std::string::npos && colon != 0) address.host = text.substr(0, colon);
    if (address.host.starts_with('[') && address.host.ends_with(']'))
        address.host = address.host.substr(1, address.host.size() - 2);
    else if (address.host.find(':') != std::string::npos)
        fail(fmt::format("{}: write an IPv6 address in brackets, [::1]:9809", escaped(text)));
    if (!parse_number(address.port, UINT16_MAX) || address.host.empty())
        fail(fmt::format("{}: not ADDRESS:PORT or unix:PATH", escaped(text)));
    return address;
}

ListenSocket::ListenSocket(const ListenAddress& address) : unix_path_(address.unix_path) {
    unix_path_.empty() ? listen_on_port(address) : listen_on_path();
}

ListenSocket::~ListenSocket() {
    close(fd_);
    if (!unix_path_.empty()) unlink(unix_path_.c_str());
}

void ListenSocket::listen_on_path() {
    const sockaddr_un address = unix_address(unix_path_);
    remove_left_behind(unix_path_, address);
    fd_ = open_socket(AF_UNIX);
    if (fd_ == -1) fail_with(unix_path_, errno);
    const mode_t before = umask(0117);
    const int bound = bind(fd_, generic(address), sizeof address);
    const int error = errno;
    umask(before);
    if (bound != 0 || listen(fd_, kBacklog) != 0) {
        close(fd_);
        fail_with(unix_path_, bound != 0 ? error : errno);
    }
}

void ListenSocket::listen_on_port(const ListenAddress& address) {
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    wanted.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    const std::string name = fmt::format("{}:{}", address.host, address.port);
    if (const int error = getaddrinfo(address.host.c_str(), address.port.c_str(), &wanted, &found);
        error != 0)
        fail(fmt::format("{}: {}", escaped(name), gai_strerror(error)));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(found, freeaddrinfo);
    fd_ = open_socket(found->ai_family);
    if (fd_ == -1) fail_with(name, errno);
    const int on = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(fd_, found->ai_addr, found->ai_addrlen) != 0 || listen(fd_, kBacklog) != 0) {
        const int error = errno;
        close(fd_);
        fail_with(name, error);
    }
}

std::string ListenSocket::name() const {
    if (!unix_path_.empty()) return "unix:" + unix_path_;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    getnameinfo(generic(address), length, host.data(), host.size(), port.data(), port.size(),
                NI_NUMERICHOST | NI_NUMERICSERV);
    const bool brackets = address.ss_family == AF_INET6;
    return fmt::format("{}{}{}:{}", brackets ? "[" : "", host.data(), brackets ? "]" : "", port.data());
}

bool ListenSocket::is_open_to_others() const {
    if (!unix_path_.empty()) return false;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    if (address.ss_family == AF_INET6)
        return !IN6_IS_ADDR_LOOPBACK(&reinterpret_cast<const sockaddr_in6&>(address).sin6_addr);
    constexpr uint32_t kLoopbackNetwork = 127;
    return ntohl(reinterpret_cast<const sockaddr_in&>(address).sin_addr.s_addr) >> 24 != kLoopbackNetwork;
}

}  // namespace trelmctl::metrics
