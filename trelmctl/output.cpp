#include "output.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace trelmctl {
std::string WriteFailed::text() const {
    return fmt::format("trelmctl: standard output cannot be written: {}; what was printed is incomplete\n",
                       std::strerror(error));
}

void tell(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

Output::Output(bool json) : json_(json), document_{{"format_version", 1}} {}

void Output::print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) throw WriteFailed{errno};
}

void Output::flush() {
    if (std::fflush(stdout) != 0) throw WriteFailed{errno};
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
        // Texts are escaped where they are put in; a byte that is no UTF-8 all the same must not cost the document.
        print(document_.dump(2, ' ', false, Json::error_handler_t::replace) + "\n");
    }
    flush();
    if (!json_) {
        for (const Failure& failure : failures_) tell(sentence(failure) + "\n");
    }
    return failures_.empty() ? EXIT_DONE : failures_.front().exit_status;
}

Progress::Progress() : visible_(isatty(STDERR_FILENO) == 1) {}

void Progress::say(std::string_view text) {
    if (!visible_) return;
    shown_ = true;
    tell(fmt::format("\r\033[K{}", text));
}

void Progress::clear() {
    if (std::exchange(shown_, false)) tell("\r\033[K");
}

}  // namespace trelmctl
