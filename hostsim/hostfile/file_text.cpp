// file_text.cpp - opens a file without waiting for a pipe's writer and without taking a terminal, then checks
// its type.
#include "file_text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "descriptor.h"
#include "host_error.h"
#include "printable.h"

namespace hostsim {
namespace {

constexpr size_t kLargest = size_t{8} << 20;

[[noreturn]] void fail(const std::filesystem::path& path, std::string_view reason) {
    throw HostError(printable(fmt::format("{}: {}", path.string(), reason)));
}

[[noreturn]] void fail_with_errno(const std::filesystem::path& path) {
    fail(path, fmt::format("the host file cannot be read: {}; name a file that is there and may be read",
                           std::strerror(errno)));
}

}  // namespace

std::string file_text(const std::filesystem::path& path) {
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0) fail_with_errno(path);
    if (!S_ISREG(status.st_mode))
        fail(path, fmt::format("this is {}; name a host file",
                               S_ISDIR(status.st_mode) ? "a directory" : "no regular file"));
    std::string text;
    std::array<char, 65536> piece;
    while (text.size() <= kLargest) {
        const ssize_t count = read(file.get(), piece.data(), piece.size());
        if (count < 0 && errno != EINTR) fail_with_errno(path);
        if (count == 0) return text;
        if (count > 0) text.append(piece.data(), static_cast<size_t>(count));
    }
    fail(path, fmt::format("the file has more than {} bytes, which no host file needs", kLargest));
}

}  // namespace hostsim
