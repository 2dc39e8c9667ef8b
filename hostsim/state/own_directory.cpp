#include "own_directory.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "path_errors.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

constexpr int kDirectoryFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

Descriptor open_directory(int parent, const std::string& name) {
    return Descriptor(openat(parent, name.c_str(), kDirectoryFlags));
}

void check_directory(int fd, const fs::path& path) {
    struct stat status {};
    if (fstat(fd, &status) != 0) fail(path);
    if (status.st_uid != geteuid())
        refuse(path, fmt::format("the directory belongs to another user (uid {})", status.st_uid));
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0)
        refuse(path, "others may write to the directory; take that from them (chmod go-w)");
}

// Opens a directory even if its mode denies access to its owner.
Descriptor open_to_empty(int parent, const std::string& name) {
    Descriptor fd = open_directory(parent, name);
    struct stat status {};
    if (!fd && errno == EACCES && fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISDIR(status.st_mode) && fchmodat(parent, name.c_str(), S_IRWXU, 0) == 0)
        fd = open_directory(parent, name);
    return fd;
}

bool on_one_file_system(int a, int b) {
    struct stat first {
    }, second{};
    return fstat(a, &first) == 0 && fstat(b, &second) == 0 && first.st_dev == second.st_dev;
}

// Returns true if the directory was moved. It still has to be emptied.
bool move_up(int from, const std::string& name, int to, const std::string& as) {
    // Moving a directory requires write permission on it.
    if (fchmodat(from, name.c_str(), S_IRWXU, 0) != 0 && errno == ENOENT) return false;
    return renameat(from, name.c_str(), to, as.c_str()) == 0;
}

}  // namespace

struct OwnDirectory::Entry {
    OwnDirectory directory;
    std::string name;
};

std::vector<std::string> names_in(int directory, const fs::path& path) {
    Descriptor own = open_directory(directory, ".");
    const std::unique_ptr<DIR, int (*)(DIR*)> list(own ? fdopendir(own.get()) : nullptr, closedir);
    if (!list) fail(path);
    own.release();
    std::vector<std::string> names;
    while (const dirent* const found = readdir(list.get())) {
        const std::string_view name = found->d_name;
        if (name != "." && name != "..") names.emplace_back(name);
    }
    return names;
}

OwnDirectory::OwnDirectory(const fs::path& path) : OwnDirectory(AT_FDCWD, path.string(), path) {}

OwnDirectory::OwnDirectory(int parent, const std::string& name, fs::path path)
    : fd_(open_directory(parent, name)), path_(std::move(path)) {
    struct stat status {};
    if (!fd_ && fstatat(parent, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(status.st_mode))
        refuse(path_, "a symbolic link, which is not followed here; give the directory itself");
    if (!fd_) fail(path_);
    check_directory(fd_.get(), path_);
}

OwnDirectory OwnDirectory::directory(std::string_view path) const {
    const Entry found = entry(path);
    return {found.directory.descriptor(), found.name, path_.string() + std::string(path)};
}

OwnDirectory OwnDirectory::make_directory(std::string_view path, mode_t mode) const {
    OwnDirectory at = {fd_.get(), ".", path_};
    for (size_t end = 0; end < path.size();) {
        const size_t begin = end + 1;
        end = std::min(path.find('/', begin), path.size());
        const std::string name(path.substr(begin, end - begin));
        const bool last = end == path.size();
        const bool made = mkdirat(at.descriptor(), name.c_str(), last ? mode & 0755 : 0755) == 0;
        if (!made && errno != EEXIST) fail(at.path() / name);
        at = {at.descriptor(), name, at.path() / name};
        // mkdirat applies the umask.
        if (made && last && fchmod(at.descriptor(), mode) != 0) fail(at.path());
    }
    return at;
}

OwnDirectory::Entry OwnDirectory::entry(std::string_view path) const {
    OwnDirectory at = {fd_.get(), ".", path_};
    const size_t last = path.rfind('/');
    for (size_t end = 0; end < last;) {
        const size_t begin = end + 1;
        end = path.find('/', begin);
        const std::string name(path.substr(begin, end - begin));
        at = {at.descriptor(), name, at.path() / name};
    }
    return {std::move(at), std::string(path.substr(last + 1))};
}

Descriptor OwnDirectory::open_file(std::string_view path, int flags) const {
    const Entry found = entry(path);
    const fs::path name = path_.string() + std::string(path);
    // O_NONBLOCK: a pipe in place of the file must not block.
    Descriptor fd(openat(found.directory.descriptor(), found.name.c_str(),
                         flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0) fail(name);
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1 || status.st_uid != geteuid() ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        refuse(name, "not a file that only this user may write and that has one name");
    return fd;
}

std::string OwnDirectory::text(std::string_view path) const noexcept {
    try {
        const Descriptor file = open_file(path, O_RDONLY);
        std::string result;
        char part[4096];
        for (ssize_t size; (size = read(file.get(), part, sizeof part)) > 0;)
            result.append(part, static_cast<size_t>(size));
        return result;
    } catch (const std::exception&) {
        return {};
    }
}

void OwnDirectory::replace_file(std::string_view path, std::string_view draft, std::string_view text) const {
    const std::string fresh = fmt::format("{}{}", draft, gettid());
    {
        const Descriptor file = open_file(fresh, O_WRONLY | O_CREAT | O_TRUNC);
        for (size_t done = 0; done < text.size();) {
            const ssize_t size = write(file.get(), text.data() + done, text.size() - done);
            if (size < 0) fail(path_.string() + fresh);
            done += static_cast<size_t>(size);
        }
    }
    rename(entry(fresh), entry(path));
}

void OwnDirectory::replace_link(std::string_view path, std::string_view draft,
                                const std::string& target) const {
    const std::string fresh = fmt::format("{}{}", draft, gettid());
    const Entry from = entry(fresh);
    remove_file(fresh);
    if (symlinkat(target.c_str(), from.directory.descriptor(), from.name.c_str()) != 0)
        fail(path_.string() + fresh);
    rename(from, entry(path));
}

void OwnDirectory::rename(const Entry& from, const Entry& to) {
    if (renameat(from.directory.descriptor(), from.name.c_str(), to.directory.descriptor(),
                 to.name.c_str()) != 0)
        fail(to.directory.path() / to.name);
}

std::vector<std::string> OwnDirectory::names() const { return names_in(fd_.get(), path_); }

bool OwnDirectory::remove_file(std::string_view path) const noexcept try {
    const Entry found = entry(path);
    return unlinkat(found.directory.descriptor(), found.name.c_str(), 0) == 0;
} catch (const std::exception&) {
    return false;
}

bool OwnDirectory::remove_directory(std::string_view path) const noexcept try {
    const Entry found = entry(path);
    return unlinkat(found.directory.descriptor(), found.name.c_str(), AT_REMOVEDIR) == 0;
} catch (const std::exception&) {
    return false;
}

void OwnDirectory::remove_empty(std::string_view path) const noexcept {
    while (!path.empty() && remove_directory(path)) path = path.substr(0, path.rfind('/'));
}

void OwnDirectory::remove_files(std::string_view path) const noexcept try {
    const OwnDirectory found = directory(path);
    for (const std::string& name : found.names()) unlinkat(found.descriptor(), name.c_str(), 0);
} catch (const std::exception&) {
    // The directory does not exist.
}

// Subdirectories of a subdirectory are moved up to this one, so that a deep tree needs a constant number of
// descriptors and no recursion.
void OwnDirectory::remove_contents() const noexcept try {
    unsigned moves = 0;
    for (bool again = true; again;) {
        again = false;
        for (const std::string& name : names()) {
            if (unlinkat(fd_.get(), name.c_str(), 0) == 0 || errno != EISDIR) continue;
            const Descriptor inner = open_to_empty(fd_.get(), name);
            if (!inner || !on_one_file_system(fd_.get(), inner.get())) continue;
            fchmod(inner.get(), S_IRWXU);
            for (const std::string& each : names_in(inner.get(), path_ / name)) {
                if (unlinkat(inner.get(), each.c_str(), 0) != 0 && errno == EISDIR)
                    again = move_up(inner.get(), each, fd_.get(), fmt::format("moved-{}", ++moves)) || again;
            }
            unlinkat(fd_.get(), name.c_str(), AT_REMOVEDIR);
        }
    }
} catch (const std::exception&) {
    // A directory that cannot be read is left.
}

}  // namespace hostsim
