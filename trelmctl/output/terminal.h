// terminal.h - properties of the terminal: size and character set, and a progress line.
#pragma once

#include <cstddef>
#include <string_view>

namespace trelmctl {

struct TerminalSize {
    std::size_t columns;
    std::size_t lines;
};

// The size of the terminal of a descriptor; the largest numbers if it is no terminal. The variable COLUMNS
// takes precedence over the width of the terminal.
TerminalSize terminal_size(int fd);

bool is_terminal(int fd);
// Whether the terminal was hung up: its window was closed or its connection lost.
bool hung_up(int fd);

// Whether the character set of the terminal has line-drawing characters.
bool utf8_locale();

// Writes to standard error as much as it accepts.
void tell(std::string_view text);
// A line of text, in place of the one that says what is being waited for, and continued where the terminal ends.
void tell_line(std::string_view text);

// A line on the terminal that says what the tool waits for. Destroying the object removes the line. Prints
// nothing if standard error is no terminal.
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
