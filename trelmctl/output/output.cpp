#include "output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <utility>

#include "terminal.h"
#include "text.h"

namespace trelmctl {
namespace {

// Texts are escaped before they come here. If a byte is still no valid UTF-8, the document must not be lost.
std::string dumped(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace) + "\n";
}

}  // namespace

std::string WriteFailed::text() const {
    return fmt::format("trelmctl: standard output cannot be written: {}; what was printed is incomplete\n",
                       std::strerror(error));
}

Output::Output(bool json) : json_(json), document_(new Json{{"format_version", 1}}) {}
Output::~Output() = default;

void Output::print(std::string_view text) {
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) throw WriteFailed{errno};
}

void Output::print_lines(std::string_view text, std::size_t indent) {
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        print(wrapped(text.substr(0, end), width(), indent) + "\n");
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

void Output::flush() {
    if (std::fflush(stdout) != 0) throw WriteFailed{errno};
}

std::size_t Output::width() { return terminal_size(STDOUT_FILENO).columns; }

void Output::stream(const Json& document) {
    print(dumped(document, -1));
    flush();
}

void Output::fail(Failure failure) { failures_.push_back(std::move(failure)); }

ExitStatus Output::finish() {
    if (json_ && !streams_) {
        // The document has one error for all. Those of single ports are at their places too.
        if (!failures_.empty()) document()["error"] = to_json(failures_.front());
        print(dumped(document(), 2));
    }
    flush();
    if (!json_) {
        for (const Failure& failure : failures_) tell_line(sentence(failure));
    }
    if (!failures_.empty()) return failures_.front().exit_status;
    return failed_ ? ExitStatus::failed : ExitStatus::done;
}

}  // namespace trelmctl
