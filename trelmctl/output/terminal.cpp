#include "terminal.h"

#include <fmt/format.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "text.h"

namespace trelmctl {

TerminalSize terminal_size(int fd) {
    winsize window{};
    TerminalSize size{SIZE_MAX, SIZE_MAX};
    if (ioctl(fd, TIOCGWINSZ, &window) == 0 && window.ws_col > 0) size = {window.ws_col, window.ws_row};
    if (const char* given = std::getenv("COLUMNS")) {
        const auto columns = parse_number(given, UINT16_MAX);
        if (columns && *columns > 0) size.columns = *columns;
    }
    return size;
}

bool is_terminal(int fd) { return isatty(fd) == 1; }

bool hung_up(int fd) {
    pollfd state{fd, POLLIN, 0};
    return poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

bool utf8_locale() { return std::string_view(nl_langinfo(CODESET)) == "UTF-8"; }

void tell(std::string_view text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

void tell_line(std::string_view text) {
    constexpr std::size_t kIndent = 4;
    if (!is_terminal(STDERR_FILENO)) return tell(fmt::format("{}\n", text));
    tell(fmt::format("\r\033[K{}\n", wrapped(text, terminal_size(STDERR_FILENO).columns, kIndent)));
}

Progress::Progress() : visible_(is_terminal(STDERR_FILENO)) {}

void Progress::say(std::string_view text) {
    if (!visible_) return;
    shown_ = true;
    tell(fmt::format("\r\033[K{}", fitted(text, terminal_size(STDERR_FILENO).columns)));
}

void Progress::clear() {
    if (std::exchange(shown_, false)) tell("\r\033[K");
}

}  // namespace trelmctl
