#include "output.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace trelmctl {
namespace {

[[noreturn]] void write_failed() {
    const int error = errno;
    throw WriteFailed(
        fmt::format("trelmctl: standard output cannot be written: {}; what was printed is incomplete",
                    std::strerror(error)));
}

}  // namespace

Output::Output(bool json) : json_(json), document_{{"format_version", 1}} {}

void Output::print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) write_failed();
}

void Output::flush() {
    if (std::fflush(stdout) != 0) write_failed();
}

void Output::fail(Failure failure) { failures_.push_back(std::move(failure)); }

std::size_t Output::terminal_lines() {
    winsize size{};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 ? size.ws_row : 0;
}

int Output::finish() {
    if (json_) {
        // One error stands for all: those of single ports are at their places in the document as well.
        if (!failures_.empty()) document_["error"] = to_json(failures_.front());
        print(document_.dump(2) + "\n");
    }
    flush();
    if (!json_) {
        for (const Failure& failure : failures_) fmt::print(stderr, "{}\n", sentence(failure));
    }
    return failures_.empty() ? EXIT_DONE : failures_.front().exit_status;
}

Progress::Progress() : visible_(isatty(STDERR_FILENO) == 1) {}

void Progress::say(std::string_view text) {
    if (!visible_) return;
    shown_ = true;
    fmt::print(stderr, "\r\033[K{}", text);
    std::fflush(stderr);
}

void Progress::clear() {
    if (std::exchange(shown_, false)) std::fputs("\r\033[K", stderr);
}

}  // namespace trelmctl
