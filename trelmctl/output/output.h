// output.h - the output of a command: text as it comes, one JSON document at the end, or a stream of
// documents. Failures are collected and reported last, so that a port that fails hides nothing of the others.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "failure.h"
#include "json.h"

namespace trelmctl {

// Standard output accepts no more data: its reader is gone or its disk is full. The command ends.
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

    // Text and raw data, if JSON is not wanted.
    void print(std::string_view text);
    // Lines of text for people, continued on the next line, with an indent, where the terminal ends.
    void print_lines(std::string_view text, std::size_t indent);
    void flush();
    // The most columns of a line of text.
    static std::size_t width();

    // From now on documents are written as a stream, one per line, with none at the end.
    void begin_stream() { streams_ = true; }
    void stream(const Json& document);

    void fail(Failure failure);

    // Ends with the status of a failure that was already reported.
    void end_failed() { failed_ = true; }

    // Ends the output: writes the document with its error, or the failures to standard error.
    ExitStatus finish();

  private:
    bool json_;
    bool streams_ = false;
    bool failed_ = false;
    std::unique_ptr<Json> document_;
    std::vector<Failure> failures_;
};

}  // namespace trelmctl
