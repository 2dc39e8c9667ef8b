#include "options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>

namespace trelm::test {

struct Options::Parser {
    CLI::App app;
};

Options::Options(const std::string& purpose) : parser_(new Parser{CLI::App(purpose)}) {}

Options::~Options() = default;

Options& Options::number(const std::string& name, unsigned& value, const std::string& meaning) {
    parser_->app.add_option(name, value, meaning);
    return *this;
}

Options& Options::choice(const std::string& name, std::string& value, const std::vector<std::string>& allowed,
                         const std::string& meaning) {
    parser_->app.add_option(name, value, meaning)->check(CLI::IsMember(allowed));
    return *this;
}

Options& Options::flag(const std::string& name, bool& value, const std::string& meaning) {
    parser_->app.add_flag(name, value, meaning);
    return *this;
}

void Options::read(int argc, const char* const* argv) {
    try {
        parser_->app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        std::exit(parser_->app.exit(error));
    }
}

}  // namespace trelm::test
