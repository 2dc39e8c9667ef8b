// output.h - where a command puts what it found: text as it comes, or one JSON document at the end. Failures
// are collected and told last, so that one port that fails hides nothing of the others.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "json.h"

namespace trelmctl {

// Standard output cannot take more: its reader is gone, its disk is full. There is nobody left to write for.
struct WriteFailed {
    int error;  // an errno value

    std::string text() const;
};

// Writes to standard error as far as that takes it.
void tell(std::string_view text);

class Output {
  public:
    explicit Output(bool json);

    bool json() const { return json_; }
    Json& document() { return document_; }

    // Text and raw data, for commands that are not asked for JSON.
    void print(std::string_view text);
    void flush();

    void fail(Failure failure);

    // Lines of the terminal that standard output is; 0 where it is none.
    static std::size_t terminal_lines();

    // Ends the output: the document with its error, or the failures on standard error. Returns the exit
    // status.
    int finish();

  private:
    bool json_;
    Json document_;
    std::vector<Failure> failures_;
};

// A line on the terminal that says what is being waited for; gone when its owner goes. Silent where standard
// error is no terminal.
class Progress {
  public:
    Progress();
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
