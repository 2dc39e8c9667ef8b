#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

namespace trelm::test {

void read_options(int argc, const char* const* argv, const std::string& purpose,
                  const std::vector<Option>& options) {
    CLI::App app(purpose);
    for (const auto& [name, value, meaning, allowed] : options) {
        CLI::Option* added = nullptr;
        if (bool* const* flag = std::get_if<bool*>(&value)) {
            added = app.add_flag(name, **flag, meaning);
        } else if (unsigned* const* number = std::get_if<unsigned*>(&value)) {
            added = app.add_option(name, **number, meaning);
        } else {
            added = app.add_option(name, *std::get<std::string*>(value), meaning);
        }
        if (!allowed.empty()) added->check(CLI::IsMember(allowed));
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(app.exit(error));
    }
}

}  // namespace trelm::test
