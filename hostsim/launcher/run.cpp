#include "run.h"

#include <csignal>
#include <system_error>

#include "complain.h"
#include "environment.h"
#include "exit_status.h"
#include "host_file.h"
#include "host_file_report.h"
#include "host_processes.h"
#include "passed_directories.h"
#include "reachable.h"
#include "root.h"
#include "simulator_paths.h"
#include "supervisor.h"
#include "texts.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

// The working directory, what the command line names, and the simulator itself.
PassedDirectories passed_directories(const RunOptions& options) {
    PassedDirectories passed;
    passed.add_working_directory();
    passed.add(options.host_file.parent_path());
    for (const fs::path& own : {launcher_path(), preload_path()}) {
        passed.add(own.parent_path());
        passed.add(own.parent_path().parent_path());
    }
    if (options.command.front().starts_with('/')) passed.add_file(options.command.front());
    for (const std::string& argument : options.command)
        if (argument.starts_with('/')) passed.add(fs::path(argument).parent_path());
    for (const std::string& directory : machines_search_path()) passed.add(directory);
    // The directories in which libraries and modules of the command are searched for.
    for (const char* list : {"LD_LIBRARY_PATH", "PYTHONPATH"})
        for (const std::string& directory : split(variable(list), ":")) passed.add(directory);
    return passed;
}

// Creates the parents of passed directories in the root, for programs that walk a path step by step.
void make_steps(const OwnDirectory& root, const PassedDirectories& passed) {
    for (const std::string& directory : passed.directories()) try {
            root.make_directory(fs::path(directory).parent_path().string());
        } catch (const std::exception&) {
            // A file of the host has that name.
        }
}

}  // namespace

int run(const RunOptions& given) {
    require_proc();
    // Without the signal, a write beyond a file-size limit fails with an error number like any other write.
    const auto at_size_limit = std::signal(SIGXFSZ, SIG_IGN);
    RunOptions options = given;
    HostFileReport report(options.host_file);
    std::vector<std::string> warnings;
    read_host_file(options.host_file, &warnings);
    for (const std::string& warning : warnings) complain("warning: " + warning);
    options.host_file = fs::canonical(options.host_file);
    const PassedDirectories passed = passed_directories(options);
    if (!options.force) {
        const std::string& command = options.command.front();
        if (const auto reason = why_unreachable(command, join(machines_search_path(), ":"))) {
            complain(command + ": " + *reason +
                     ", so it would run on this machine and not on the simulated host; "
                     "--force runs it anyway");
            return kCannotExecute;
        }
    }
    const std::unique_ptr<Root> root = options.root ? Root::open(*options.root) : Root::make_temporary();
    root->enter(options.host_file);
    make_steps(root->files(), passed);
    const Program program{options.command, environment_for(*root, passed), at_size_limit};
    const auto kept = root->descriptors();
    const int status = supervise(
        program, kept, [&] { root->leave(); }, [&] { report.look(); });
    root->hand_over();
    return status;
}

}  // namespace hostsim
