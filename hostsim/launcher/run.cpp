#include "run.h"

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "host_file.h"
#include "passed_directories.h"
#include "root_lock.h"
#include "simulator_paths.h"
#include "state.h"
#include "supervisor.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kOwnCommands = "/.hostsim/bin";

std::vector<std::string> split(std::string_view text, std::string_view separators) {
    std::vector<std::string> result;
    while (!text.empty()) {
        const size_t end = std::min(text.find_first_of(separators), text.size());
        if (end > 0) result.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return result;
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
    std::string result;
    for (const std::string& part : parts) (result += result.empty() ? "" : separator) += part;
    return result;
}

std::string_view variable(const char* name) {
    const char* value = std::getenv(name);
    return value == nullptr ? std::string_view() : value;
}

// What the command needs of the machine: where it is started, what it is given, and the simulator itself.
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
    for (const std::string& directory : split(variable("PATH"), ":"))
        if (!directory.ends_with(kOwnCommands)) passed.add(directory);
    return passed;
}

// ---- The command's environment

std::string preload_list() {
    const std::string preload = preload_path().string();
    if (preload.empty())
        throw std::runtime_error("libtrelm-hostsim.so is not where it belongs beside " +
                                 own_object().string() +
                                 "; build the target hostsim or install the simulator whole");
    if (preload.find_first_of(": ") != std::string::npos)
        throw std::runtime_error(preload +
                                 ": the dynamic linker preloads no object with a colon or a space in its "
                                 "path; move the simulator to a directory without");
    std::vector<std::string> objects = split(HOSTSIM_SANITIZER_RUNTIMES, ":");
    objects.push_back(preload);
    for (const std::string& other : split(variable("LD_PRELOAD"), ": "))
        if (std::find(objects.begin(), objects.end(), other) == objects.end()) objects.push_back(other);
    return join(objects, ":");
}

std::string search_path(const fs::path& root) {
    std::vector<std::string> directories{root.string() + kOwnCommands};
    for (const std::string& directory : split(variable("PATH"), ":"))
        if (!directory.ends_with(kOwnCommands)) directories.push_back(directory);
    if (directories.size() == 1) directories.insert(directories.end(), {"/usr/bin", "/bin"});
    // What lies beside the launcher, the tool above all, is found without its path.
    const std::string own = launcher_path().parent_path().string();
    if (std::find(directories.begin(), directories.end(), own) == directories.end())
        directories.push_back(own);
    return join(directories, ":");
}

class Environment {
  public:
    Environment() {
        for (char** entry = environ; *entry != nullptr; ++entry) entries_.emplace_back(*entry);
    }
    void remove(std::string_view name) {
        std::erase_if(entries_, [name](std::string_view entry) {
            return entry.starts_with(name) && entry.substr(name.size()).starts_with('=');
        });
    }
    void set(const std::string& name, const std::string& value) {
        remove(name);
        entries_.push_back(name + "=" + value);
    }
    std::vector<std::string> entries() && { return std::move(entries_); }

  private:
    std::vector<std::string> entries_;
};

std::vector<std::string> environment_for(const fs::path& root, const PassedDirectories& passed) {
    Environment environment;
    environment.set("LD_PRELOAD", preload_list());
    environment.set("PATH", search_path(root));
    environment.set(kRootVariable, root.string());
    environment.set(kPassedVariable, join(passed.directories(), "\n"));
    // A directory of the machine's that the host does not have.
    if (is_hidden(std::string(variable("TMPDIR")))) environment.remove("TMPDIR");
    // Programs that know nothing of the sanitizer leave memory to the system.
    if (std::strlen(HOSTSIM_SANITIZER_RUNTIMES) > 0 && variable("ASAN_OPTIONS").empty())
        environment.set("ASAN_OPTIONS", "detect_leaks=0");
    return std::move(environment).entries();
}

// ---- The root

// Goes with the object unless it was given by the user or the janitor has taken it over.
class Root {
  public:
    explicit Root(const std::optional<fs::path>& given) : is_temporary_(!given) {
        if (given) fs::create_directories(*given);
        path_ = given ? fs::canonical(*given) : State::temporary_root();
        const std::string text = path_.string();
        if (text.find('\n') == std::string::npos) return;
        remove();
        throw std::runtime_error(text +
                                 ": the root's path must not contain a line break; give another --root");
    }
    ~Root() { remove(); }
    Root(const Root&) = delete;
    Root& operator=(const Root&) = delete;

    const fs::path& path() const { return path_; }
    void remove() const noexcept {
        std::error_code error;
        if (is_temporary_ && owner_ == getpid()) fs::remove_all(path_, error);
    }
    void hand_over() { owner_ = 0; }
    void take_over() { owner_ = getpid(); }

  private:
    bool is_temporary_;
    pid_t owner_ = getpid();
    fs::path path_;
};

// The steps to a passed directory are there too, so that a program which walks there finds a way.
void make_steps(const fs::path& root, const PassedDirectories& passed) {
    std::error_code error;
    for (const std::string& directory : passed.directories())
        fs::create_directories(root / fs::path(directory).relative_path().parent_path(), error);
}

}  // namespace

int run(const RunOptions& given) {
    RunOptions options = given;
    read_host_file(options.host_file);
    options.host_file = fs::canonical(options.host_file);
    const PassedDirectories passed = passed_directories(options);
    Root root(options.root);
    RootLock lock(root.path(), options.host_file.string());
    make_steps(root.path(), passed);
    const Command command{options.command, environment_for(root.path(), passed)};
    root.hand_over();
    return supervise(command, lock.descriptors(), [&] {
        root.take_over();
        lock.leave();
        root.remove();
    });
}

}  // namespace hostsim
