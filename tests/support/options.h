// options.h - options of test programs. The parser costs a source seconds of compile time, so only one source includes it.
#pragma once

#include <string>
#include <variant>
#include <vector>

namespace trelm::test {

struct Option {
    std::string name;
    std::variant<unsigned*, bool*, std::string*> value;  // keeps what it holds where the option is absent
    std::string meaning;
    std::vector<std::string> allowed = {};  // empty: all
};

// Ends the process if help was asked for, or after a complaint about the arguments.
void read_options(int argc, const char* const* argv, const std::string& purpose,
                  const std::vector<Option>& options);

}  // namespace trelm::test
