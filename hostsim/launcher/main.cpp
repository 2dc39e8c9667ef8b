// main.cpp - the command line of trelm-hostsim. Programs of a host call it as lsof; then it prints the host's
// process listing.
#include <fmt/format.h>
#include <fmt/ostream.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "complain.h"
#include "exit_status.h"
#include "host_file.h"
#include "host_schema.h"
#include "listing.h"
#include "model.h"
#include "printable.h"
#include "root.h"
#include "run.h"
#include "starting_host.h"

namespace {

namespace fs = std::filesystem;
using hostsim::complain;

constexpr char kRunFooter[] =
    R"(The command and all its children see the host's drivers, name, user, process listing and semaphores, and
the host's own /tmp and /var/tmp. These directories of the machine stay visible even below /tmp and /var/tmp:
the working directory, those of the host file and of paths on the command line, and those in PATH,
LD_LIBRARY_PATH and PYTHONPATH.

Several commands may run on one --root at the same time. A command that is statically linked or set-user-ID
would run on the machine itself and is refused. A mistake that an edit puts into HOST.json is reported once; the
host stays as it was.

Exit status: the command's, or 128 and the number of the signal that ended it; 127 the command was not found,
126 it cannot be executed, 125 trelm-hostsim itself failed.)";

constexpr char kCleanFooter[] =
    R"(A host that is killed together with its command leaves files in the directory for temporary files, and
semaphore sets. This command removes them, as the next start of a host does. Running hosts are left alone.)";

constexpr int kFailed = 1;
constexpr int kUsage = 2;

std::string summary(const hostsim::Model& model) {
    std::string drivers;
    for (size_t i = 0; i < hostsim::kDriverKinds; ++i) {
        const auto kind = static_cast<hostsim::DriverKind>(i);
        if (!hostsim::is_present(model, kind)) continue;
        drivers += fmt::format("{}{} ({} ports)", drivers.empty() ? "" : ", ", hostsim::kDriverKindNames[i],
                               hostsim::driver_ports(model, kind).size());
    }
    size_t targets = 0;
    for (const hostsim::PortRef& port : hostsim::all_ports(model)) targets += port.port->targets.size();
    return fmt::format("host \"{}\", drivers: {}; adapters: {}, targets: {}, faults: {}", model.name,
                       drivers.empty() ? "none" : drivers, model.adapters.size(), targets,
                       model.faults.size());
}

int check(const std::vector<std::string>& files) {
    int result = 0;
    for (const std::string& file : files) {
        try {
            std::vector<std::string> warnings;
            const hostsim::Model model = hostsim::read_host_file(file, &warnings);
            for (const std::string& warning : warnings) complain("warning: " + warning);
            fmt::print("{}: {}: {}\n", warnings.empty() ? "sound" : "usable", hostsim::printable(file),
                       hostsim::printable(summary(model)));
        } catch (const std::exception& error) {
            complain(error.what());
            result = kFailed;
        }
        std::fflush(stdout);
    }
    return result;
}

int write_new(const std::string& file) {
    if (file.empty()) {
        std::fputs(hostsim::kStartingHost, stdout);
        return 0;
    }
    std::FILE* out = std::fopen(file.c_str(), "wx");
    bool written = out != nullptr && std::fputs(hostsim::kStartingHost, out) >= 0;
    if (out != nullptr) written = std::fclose(out) == 0 && written;
    if (written) return 0;
    const int error = errno;
    complain(fmt::format(
        "{}: {}; {}", file, std::strerror(error),
        error == EEXIST ? "remove it or choose another name" : "choose a file that can be written"));
    return kFailed;
}

int clean(const std::vector<std::string>& roots) {
    std::vector<hostsim::Remains> cleared = hostsim::clear_temporary_roots();
    int result = 0;
    for (const std::string& root : roots) {
        try {
            if (const auto remains = hostsim::clear_root(root)) cleared.push_back(*remains);
        } catch (const std::exception& error) {
            complain(error.what());
            result = kFailed;
        }
    }
    for (const hostsim::Remains& remains : cleared)
        fmt::print("cleared: {}, semaphore sets: {}\n", remains.root.string(), remains.semaphore_sets);
    if (cleared.empty() && result == 0) fmt::print("nothing to clear\n");
    return result;
}

// Failures of run have an exit status that a script can distinguish from that of the command.
int run_command(const hostsim::RunOptions& options) {
    try {
        return hostsim::run(options);
    } catch (const std::exception& error) {
        complain(error.what());
        return hostsim::kLauncherFailed;
    }
}

int list_as_lsof() {
    const fs::path root = hostsim::listed_root();
    if (root.empty()) {
        std::cerr << "lsof: no simulated host; call it from a program that trelm-hostsim run has started\n";
        return kFailed;
    }
    hostsim::list_processes(root, std::cout);
    return 0;
}

// The command after "--" is not parsed here.
std::vector<std::string> take_command(int& argc, char** argv) {
    char** const end =
        std::find_if(argv, argv + argc, [](const char* text) { return std::strcmp(text, "--") == 0; });
    std::vector<std::string> command;
    if (end != argv + argc) command.assign(end + 1, argv + argc);
    argc = static_cast<int>(end - argv);
    return command;
}

int dispatch(int argc, char** argv) {
    CLI::App app{"Runs programs, unmodified, on a simulated host with FCoE adapters.", "trelm-hostsim"};
    app.set_version_flag("--version", "trelm-hostsim " HOSTSIM_VERSION);
    app.require_subcommand(1);
    app.footer("Start with: trelm-hostsim new host.json, then trelm-hostsim run host.json -- trelmctl list");

    hostsim::RunOptions options;
    options.command = take_command(argc, argv);
    std::string root;
    CLI::App* run = app.add_subcommand("run",
                                       "Run a command on the host that a file describes:\n  trelm-hostsim "
                                       "run HOST.json [--root DIR] -- COMMAND [ARGUMENT]...");
    run->add_option("HOST.json", options.host_file, "The host file; the running host follows edits")
        ->required();
    const auto is_named = [](const std::string& value) {
        return value.empty() ? std::string("a directory is required") : std::string();
    };
    CLI::Option* has_root = run->add_option(
        "--root", root,
        "Keep the host's files (its /tmp, /var/tmp and LUNs) in this directory, which must be "
        "new, empty or an earlier --root; without it they are removed at the end");
    has_root->type_name("DIR")->check(is_named);
    run->add_flag("--force", options.force, "Run a command even if it would run on the machine itself");
    run->footer(kRunFooter);

    std::vector<std::string> files;
    CLI::App* checking =
        app.add_subcommand("check", "Check host files: sound, usable with warnings, or mistaken");
    checking->add_option("HOST.json", files, "Host files")->required();

    std::vector<std::string> roots;
    CLI::App* cleaning = app.add_subcommand("clean", "Remove what killed hosts left behind");
    cleaning->add_option("--root", roots, "Also clean this directory, which was given to run")
        ->type_name("DIR")
        ->check(is_named);
    cleaning->footer(kCleanFooter);

    std::string file;
    CLI::App* making = app.add_subcommand("new", "Write a commented host file to start from");
    making->add_option("FILE", file, "The file to create; it must not exist. Default: standard output");

    CLI::App* schema = app.add_subcommand("schema", "Print the JSON schema of host files");

    try {
        app.parse(argc, argv);
        if (*run && options.command.empty())
            throw CLI::RequiredError(
                "a command after --, as in: trelm-hostsim run HOST.json -- trelmctl list");
        if (!*run && !options.command.empty()) throw CLI::ExtrasError(options.command);
    } catch (const CLI::ParseError& error) {
        if (app.exit(error) == 0) return 0;
        return *run ? hostsim::kLauncherFailed : kUsage;
    }
    if (*has_root) options.root = root;
    if (*run) return run_command(options);
    if (*cleaning) return clean(roots);
    if (*schema) {
        fmt::print("{}", hostsim::host_schema());
        return 0;
    }
    return *checking ? check(files) : write_new(file);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const bool as_listing = argc > 0 && fs::path(argv[0]).filename() == "lsof";
        return as_listing ? list_as_lsof() : dispatch(argc, argv);
    } catch (const std::exception& error) {
        complain(error.what());
        return kFailed;
    }
}
