// output.h - where a command puts what it found: text as it comes, one JSON document at the end, or a stream of
// them. Failures are collected and told last, so that one port that fails hides nothing of the others.
#pragma once

#include <cstddef>
#include <memory>
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

class Output {
  public:
    explicit Output(bool json);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    bool json() const { return json_; }
    Json& document() { return *document_; }

    // Text and raw data, for commands that are not asked for JSON.
    void print(std::string_view text);
    // Lines of text for people, continued on the next line, with an indent, where the terminal ends.
    void print_lines(std::string_view text, std::size_t indent);
    void flush();
    // Columns that a line of text may have.
    static std::size_t width();

    // From here on documents come as a stream, each on a line of its own, and none at the end.
    void begin_stream() { streams_ = true; }
    void stream(const Json& document);

    void fail(Failure failure);

    // Ends with the status of a failure that has been told already.
    void end_failed() { failed_ = true; }

    // Ends the output: the document with its error, or the failures on standard error.
    ExitStatus finish();

  private:
    bool json_;
    bool streams_ = false;
    bool failed_ = false;
    std::unique_ptr<Json> document_;
    std::vector<Failure> failures_;
};

}  // namespace trelmctl
