#include "files.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "failure.h"
#include "text.h"

namespace trelmctl {
namespace {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

[[noreturn]] void file_failed(const std::string& path, const char* operation) {
    const int error = errno;
    const char* name = strerrorname_np(error);
    throw CommandFailed(Failure{.code = static_cast<uint32_t>(error),
                                .name = name != nullptr ? name : "UNKNOWN",
                                .meaning = fmt::format("{}: {}", escaped(path), std::strerror(error)),
                                .advice = {},
                                .operation = operation,
                                .port = {}});
}

}  // namespace

std::vector<uint8_t> file_contents(const std::string& path) {
    constexpr const char* kOperation = "reading the file";
    const bool standard = path == "-";
    const File file(standard ? stdin : std::fopen(path.c_str(), "rbe"),
                    [](FILE* f) { return f == stdin ? 0 : std::fclose(f); });
    if (!file) file_failed(path, kOperation);
    std::vector<uint8_t> contents;
    std::array<uint8_t, 65536> piece{};
    while (contents.size() <= kMostData) {
        const std::size_t got = std::fread(piece.data(), 1, piece.size(), file.get());
        if (got == 0) break;
        contents.insert(contents.end(), piece.begin(), piece.begin() + static_cast<std::ptrdiff_t>(got));
    }
    if (std::ferror(file.get()) != 0) file_failed(path, kOperation);
    if (contents.size() > kMostData) {
        throw CommandFailed(
            usage_failure(fmt::format("{} holds more than {} bytes", escaped(path), kMostData)));
    }
    return contents;
}

void write_file(const std::string& path, std::span<const uint8_t> bytes) {
    constexpr const char* kOperation = "writing the file";
    File file(std::fopen(path.c_str(), "wbe"), std::fclose);
    if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size())
        file_failed(path, kOperation);
    if (std::fclose(file.release()) != 0) file_failed(path, kOperation);
}

}  // namespace trelmctl
