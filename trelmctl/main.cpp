// main.cpp - trelmctl, the command-line tool of libtrelm: takes the command line, runs its command and tells
// what failed.
#include <fmt/format.h>

#include <clocale>
#include <csignal>
#include <new>

#include "commands.h"
#include "options.h"
#include "output.h"

namespace {

using namespace trelmctl;

// Carries the command out; whatever ends it early is a failure like any other.
int run(const Options& options) {
    Output output(options.json);
    try {
        options.command->run(options, output);
    } catch (const CommandFailed& failed) {
        output.fail(failed.failure());
    } catch (const trelm::Error& error) {
        output.fail(explain(error));
    } catch (const std::bad_alloc&) {
        output.fail(Failure{.code = {},
                            .name = "ENOMEM",
                            .meaning = "there is not enough memory on this machine",
                            .advice = "free memory and try again",
                            .operation = options.command->name,
                            .port = {}});
    }
    return output.finish();
}

}  // namespace

int main(int argc, char** argv) {
    std::setlocale(LC_CTYPE, "");
    // A reader that has gone is noticed by the write, so that the library is left in order.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        const ParsedOptions parsed = parse_options(argc, argv);
        return parsed.exit_status ? *parsed.exit_status : run(parsed.options);
    } catch (const WriteFailed& failed) {
        fmt::print(stderr, "{}\n", failed.what());
        return EXIT_FAILED;
    } catch (const std::exception& error) {
        fmt::print(stderr, "trelmctl: {}\n", error.what());
        return EXIT_FAILED;
    }
}
