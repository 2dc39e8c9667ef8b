// terminal.h - properties of the terminal: size and character set, and a progress line.
#pragma once

#include <cstddef>
#include <string_view>

namespace trelmctl {

struct TerminalSize {
    std::size_t columns;
    std::size_t lines;
};

// The size of the terminal; the largest numbers if the descriptor is not a terminal. The environment variable
// COLUMNS takes precedence over the width of the terminal.
TerminalSize terminal_size(int fd);

bool is_terminal(int fd);
// Whether the terminal was hung up: its window was closed, or its connection was lost.
bool hung_up(int fd);

// Whether the character set of the terminal has line-drawing characters.
bool utf8_locale();

// Writes to standard error, and ignores errors.
void tell(std::string_view text);
// Writes a line to standard error. On a terminal it replaces the progress line and is wrapped to the width.
void tell_line(std::string_view text);

// A line on the terminal that says what the tool waits for. Destroying the object removes the line. Prints
// nothing if standard error is not a terminal.
class Progress {
  public:
    Progress();
    explicit Progress(bool visible) : visible_(visible) {}
    ~Progress() { clear(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void say(std::string_view text);
    void clear();

  private:
    bool visible_;
    bool shown_ = false;
};

}  // namespace trelmctl
