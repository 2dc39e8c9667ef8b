#include "root.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <system_error>

#include "host_processes.h"
#include "path_errors.h"
#include "root_layout.h"
#include "shared_state.h"
#include "simulator_paths.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kTemporaryName = "trelm-hostsim-";

// Marks of a root that is removed with its host, and of one that a user named.
constexpr std::string_view kTemporaryMark = "The root of a simulated host, for as long as the host runs.\n";
constexpr std::string_view kKeptMark = "The root of a simulated host, kept by its user.\n";

// PATH and the list of passed directories use these characters as separators.
bool is_usable(const fs::path& path) { return path.string().find_first_of(":\n") == std::string::npos; }

fs::path temporary_files() {
    const char* given = std::getenv("TMPDIR");
    const fs::path directory = fs::canonical(given != nullptr && *given != 0 ? given : "/tmp");
    return is_usable(directory) ? directory : "/tmp";
}

Descriptor open_parent(const fs::path& path) {
    Descriptor parent(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent) fail(path);
    return parent;
}

// A user who may rename a directory above a root can replace the root with another one, whose programs come
// first in PATH. The owner of / owns the machine, also if a user namespace shows root under another id.
void check_way(fs::path directory) {
    struct stat machine {};
    if (stat("/", &machine) != 0) fail("/");
    for (bool more = true; more; directory = directory.parent_path()) {
        more = directory.has_relative_path();
        struct stat status {};
        if (stat(directory.c_str(), &status) != 0) continue;  // it does not exist yet
        if (status.st_uid != 0 && status.st_uid != machine.st_uid && status.st_uid != geteuid())
            refuse(directory,
                   fmt::format("the directory above the root belongs to another user (uid {}), who "
                               "could replace the root; give a root elsewhere",
                               status.st_uid));
        if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0)
            refuse(directory,
                   "others may write to the directory above the root and could replace the root; "
                   "take that from them (chmod go-w)");
    }
}

bool is_machines_root(int directory) {
    struct stat status {
    }, machine{};
    return fstat(directory, &status) != 0 || stat("/", &machine) != 0 ||
           (status.st_dev == machine.st_dev && status.st_ino == machine.st_ino);
}

bool lock(const Descriptor& file, int operation) {
    int result;
    do {
        result = flock(file.get(), operation);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

std::string path_in_own(const std::string& name) { return std::string(layout::kOwn) + "/" + name; }

}  // namespace

Root::Root(Descriptor parent, std::string name, const fs::path& path, bool made)
    : parent_(std::move(parent)),
      name_(std::move(name)),
      directory_(parent_.get(), name_, path),
      made_(made),
      blank_(is_blank()),
      owner_(getpid()) {
    struct stat status {};
    if (is_machines_root(directory_.descriptor()))
        refuse("/", "the machine's own root is no simulated host's; give a new directory");
    if (fstat(directory_.descriptor(), &status) != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        refuse(path, "others may write to the directory; take that from them (chmod go-w)");
}

Root::~Root() {
    if (owner_ != getpid()) return;
    if (entered_)
        leave();
    else if (is_temporary_)
        remove();
    else if (begun_ && blank_)
        unmake();
    // Fails if it is not empty.
    if (made_) unlinkat(parent_.get(), name_.c_str(), AT_REMOVEDIR);
}

// ---- Choosing the directory

std::unique_ptr<Root> Root::make_temporary() {
    const fs::path directory = temporary_files();
    sweep(directory);
    std::string path = (directory / kTemporaryName).string() + "XXXXXX";
    if (mkdtemp(path.data()) == nullptr) fail("a directory for the simulated host, " + path);
    std::unique_ptr<Root> root(new Root(open_parent(directory), fs::path(path).filename(), path, true));
    root->is_temporary_ = true;
    return root;
}

std::unique_ptr<Root> Root::find(const fs::path& given, bool make) {
    fs::path path = fs::absolute(given);
    while (!path.has_filename() && path.has_relative_path()) path = path.parent_path();
    if (path.filename() == "." || path.filename() == "..") path = fs::canonical(path);
    if (!path.has_relative_path())
        refuse("/", "the machine's own root is no simulated host's; give a new directory");
    if (!is_usable(fs::weakly_canonical(path)))
        refuse(path, "the path of a root must not contain a colon or a line break; give another");
    if (make) {
        check_way(fs::weakly_canonical(path.parent_path()));
        fs::create_directories(path.parent_path());
    }
    const fs::path directory = fs::canonical(path.parent_path());
    if (make) check_way(directory);  // a link may point elsewhere by now
    Descriptor parent = open_parent(directory);
    const std::string name = path.filename();
    const bool made = make && mkdirat(parent.get(), name.c_str(), S_IRWXU) == 0;
    if (make && !made && errno != EEXIST) fail(path);
    return std::unique_ptr<Root>(new Root(std::move(parent), name, directory / name, made));
}

std::unique_ptr<Root> Root::open(const fs::path& given) {
    std::unique_ptr<Root> root = find(given, true);
    // In this order: another launcher may be turning a blank directory into a marked one.
    if (!root->blank_ && root->mark().empty())
        refuse(root->path(), "neither empty nor the root of a simulated host; give a new directory");
    return root;
}

// Empty, or a launcher was killed before it wrote the mark.
bool Root::is_blank() const {
    const std::vector<std::string> names = directory_.names();
    if (names.empty()) return true;
    if (names.size() > 1 || "/" + names.front() != layout::kOwn) return false;
    const std::vector<std::string> own = directory_.directory(layout::kOwn).names();
    return std::all_of(own.begin(), own.end(), [](const std::string& name) {
        const std::string path = path_in_own(name);
        return path == layout::kTurn || path == layout::kUsers || path.starts_with(layout::kDraft);
    });
}

std::string_view Root::mark() const {
    const std::string text = directory_.text(layout::kMark);
    for (const std::string_view known : {kTemporaryMark, kKeptMark})
        if (text == known) return known;
    return {};
}

// ---- Locks

void Root::open_locks(int flags) {
    turn_ = directory_.open_file(layout::kTurn, O_RDWR | flags);
    users_ = directory_.open_file(layout::kUsers, O_RDWR | flags);
}

// True if nobody else runs a host here. Nobody can start one while this object holds its locks. Processes of
// a host may go on after its launcher and janitor were killed.
bool Root::is_unused(bool wait) {
    if (!lock(turn_, wait ? LOCK_EX : LOCK_EX | LOCK_NB)) return false;
    if (!lock(users_, LOCK_EX | LOCK_NB)) return false;
    return !fs::exists(path().string() + layout::kState) || processes_of_host(path()).empty();
}

void Root::enter(const std::string& host_file) {
    directory_.make_directory(layout::kOwn, S_IRWXU);
    open_locks(O_CREAT);
    if (is_unused(true))
        begin(host_file);
    else
        join(host_file);
    lock(users_, LOCK_SH);
    lock(turn_, LOCK_UN);
    entered_ = true;
}

void Root::leave() noexcept {
    entered_ = false;
    lock(turn_, LOCK_EX);
    if (lock(users_, LOCK_EX | LOCK_NB)) {
        const bool is_temporary = mark() == kTemporaryMark;
        end();
        if (is_temporary) remove();
    }
    lock(users_, LOCK_UN);
    lock(turn_, LOCK_UN);
}

std::array<int, 4> Root::descriptors() const {
    return {parent_.get(), directory_.descriptor(), turn_.get(), users_.get()};
}

void Root::join(const std::string& host_file) const {
    const std::string runs = map_state(directory_)->host_file;
    if (runs == host_file) return;
    refuse(path(), "the host of " + runs + " runs here, not that of " + host_file +
                       "; end it first or give another --root");
}

// ---- Creating and ending a host

void Root::begin(const std::string& host_file) {
    begun_ = true;
    const std::string_view wanted = is_temporary_ ? kTemporaryMark : kKeptMark;
    if (mark() != wanted) directory_.replace_file(layout::kMark, layout::kDraft, wanted);
    end();
    try {
        lay_out();
        create_state(directory_, host_file);
    } catch (...) {
        end();
        throw;
    }
}

void Root::lay_out() const {
    for (const char* open_to_all : {layout::kTmp, layout::kVarTmp})
        directory_.make_directory(open_to_all, S_ISVTX | S_IRWXU | S_IRWXG | S_IRWXO);
    directory_.make_directory(layout::kLuns, S_IRWXU);
    directory_.make_directory(layout::kNodeDirectory);
    directory_.make_directory(layout::kCommands);
    if (const fs::path launcher = launcher_path(); !launcher.empty())
        directory_.replace_link(layout::kListing, layout::kDraft, launcher);
}

// Removes the files that are needed only while the host runs. Returns the number of semaphore sets if there
// was a host.
std::optional<size_t> Root::end() const noexcept try {
    const std::optional<size_t> sets = remove_state(directory_);
    directory_.remove_file(layout::kLegacyNode);
    directory_.remove_empty(layout::kNodeDirectory);
    directory_.remove_files(layout::kLinkStates);
    directory_.remove_empty(layout::kLinkStates);
    directory_.remove_files(layout::kCommands);
    directory_.remove_directory(layout::kCommands);
    for (const std::string& name : directory_.directory(layout::kOwn).names()) {
        const std::string path = path_in_own(name);
        if (std::find(layout::kKept.begin(), layout::kKept.end(), path) == layout::kKept.end())
            directory_.remove_file(path);
    }
    return sets;
} catch (const std::exception&) {
    return std::nullopt;
}

// Removes what begin() created in a blank directory.
void Root::unmake() const noexcept {
    for (const char* file : layout::kKept) directory_.remove_file(file);
    for (const char* directory : {layout::kOwn, layout::kTmp, layout::kVarTmp, layout::kLuns})
        directory_.remove_empty(directory);
}

bool Root::remove() const noexcept {
    directory_.remove_contents();
    return unlinkat(parent_.get(), name_.c_str(), AT_REMOVEDIR) == 0;
}

// ---- Killed hosts

std::vector<Remains> Root::sweep(const fs::path& directory) {
    std::vector<Remains> found;
    for (const std::string& name : names_in(open_parent(directory).get(), directory)) {
        if (!name.starts_with(kTemporaryName)) continue;
        try {
            Root root(open_parent(directory), name, directory / name, false);
            if (root.mark() != kTemporaryMark) continue;
            root.open_locks(0);
            if (!root.is_unused(false)) continue;
            const size_t sets = root.end().value_or(0);
            if (root.remove()) found.push_back({root.path(), sets});
        } catch (const std::exception&) {
            // It belongs to another user, or was removed meanwhile.
        }
    }
    return found;
}

std::vector<Remains> clear_temporary_roots() { return Root::sweep(temporary_files()); }

std::optional<Remains> clear_root(const fs::path& given) {
    const std::unique_ptr<Root> root = Root::find(given, false);
    if (root->mark().empty()) refuse(root->path(), "not the root of a simulated host");
    root->open_locks(O_CREAT);
    if (!root->is_unused(false)) refuse(root->path(), "a host runs here; end it first");
    const std::optional<size_t> sets = root->end();
    const bool removed = root->mark() == kTemporaryMark && root->remove();
    if (!sets && !removed) return std::nullopt;
    return Remains{root->path(), sets.value_or(0)};
}

}  // namespace hostsim
