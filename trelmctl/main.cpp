// main.cpp - trelmctl, the command-line tool of libtrelm: parses the command line, runs the command and
// reports failures.
#include <fcntl.h>
#include <unistd.h>

#include <clocale>
#include <csignal>
#include <new>

#include "command_line.h"
#include "commands.h"
#include "output.h"
#include "terminal.h"
#include "trelm_mgmt.hpp"

namespace {

using namespace trelmctl;

// An exception that ends a command is reported like any other failure. The output so far is still shown.
void carry_out(int argc, char** argv, Output& output) {
    try {
        const Options options = parse_options(argc, argv, output);
        if (options.command != nullptr) options.command->run(options, output);
    } catch (const CommandFailed& failed) {
        output.fail(failed.failure());
    } catch (const trelm::Error& error) {
        output.fail(explain(error));
    } catch (const std::bad_alloc&) {
        output.fail(tool_failure("ENOMEM", "there is not enough memory on this machine",
                                 "free memory and try again"));
    } catch (const std::exception&) {
        output.fail(tool_failure("INTERNAL", "an error of the tool itself ended the command",
                                 "report the command line and what 'trelmctl version' prints"));
    }
}

// If a standard descriptor is closed, the next opened file would get its number and receive the output of the
// tool. So each closed descriptor is replaced with one that refuses every transfer, as the closed one did.
void occupy_closed_descriptors() {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) != -1) continue;
        if (open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd)
            _exit(static_cast<int>(ExitStatus::failed));
    }
}

}  // namespace

int main(int argc, char** argv) {
    occupy_closed_descriptors();
    std::setlocale(LC_CTYPE, "");
    // A missing reader shows as a failed write, so that the library can be freed.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        Output output(asks_for_json(argc, argv));
        carry_out(argc, argv, output);
        return static_cast<int>(output.finish());
    } catch (const WriteFailed& failed) {
        if (failed.error != EPIPE) tell(failed.text());
    } catch (const std::exception&) {
        tell("trelmctl: there is not enough memory on this machine\n");
    }
    return static_cast<int>(ExitStatus::failed);
}
