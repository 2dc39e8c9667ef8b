// terminal.h - what the tool knows of the terminal: how wide and high it is, which characters it has, and a
// line that says what is being waited for.
#pragma once

#include <cstddef>
#include <string_view>

namespace trelmctl {

struct TerminalSize {
    std::size_t columns;
    std::size_t lines;
};

// Of the terminal that a descriptor is; the largest numbers where it is none. The variable COLUMNS goes before
// the terminal's own width.
TerminalSize terminal_size(int fd);

bool is_terminal(int fd);
// Whether nobody is at the other end any longer: the window was closed, the connection lost.
bool hung_up(int fd);

// Whether the terminal's character set has the line-drawing characters.
bool utf8_locale();

// Writes to standard error as far as that takes it.
void tell(std::string_view text);
// A line of text, in place of the one that says what is being waited for, and continued where the terminal ends.
void tell_line(std::string_view text);

// A line on the terminal that says what is being waited for. It is gone when its owner is. Silent where standard
// error is no terminal.
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
