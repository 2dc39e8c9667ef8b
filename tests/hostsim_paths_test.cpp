// hostsim_paths_test.cpp - every family of libc's functions that take a path, in a process with a simulated
// host of its own: each must reach the host's "/tmp" and never the machine's. The machine has no file of the
// names used here, so a call that is not redirected fails or leaves no file below the host's root.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <ftw.h>
#include <glob.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "host.h"
#include "hosts.h"
#include "own_calls.h"
#include "state.h"
#include "trelm_driver_records.h"

namespace {

namespace fs = std::filesystem;
using hostsim::DriverKind;
using hostsim::Host;

class HostsimPaths : public testing::Test {
  protected:
    HostsimPaths() {
        for (const char* directory : {"tmp", "var/tmp"})
            std::ofstream(host_.root() / directory / name_) << "text";
    }

    std::string in_tmp(const std::string& suffix = "") const { return "/tmp/" + name_ + suffix; }
    fs::path in_root(const std::string& suffix = "") const {
        return host_.root() / ("tmp/" + name_ + suffix);
    }

    Host host_{hostsim::hosts::legacy_ports(1)};
    std::string name_ = "hostsim-paths-" + std::to_string(getpid());
};

// A function that only old or fortified programs call.
template <typename Function>
Function* by_name(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_DEFAULT, name));
}

bool closes(int fd) { return fd >= 0 && close(fd) == 0; }
bool closes(std::FILE* file) { return file != nullptr && std::fclose(file) == 0; }

struct Probe {
    const char* name;
    std::function<bool(const char*)> call;
};

TEST_F(HostsimPaths, LooksAreRedirected) {
    struct stat status {};
    struct stat64 status64 {};
    struct statx extended {};
    struct statfs file_system {};
    struct statvfs volume {};
    timeval times[2]{};
    timespec precise[2]{};
    utimbuf old_times{};
    char text[PATH_MAX];
    const Probe probes[]{
        {"open", [](auto* p) { return closes(open(p, O_RDONLY)); }},
        {"open64", [](auto* p) { return closes(open64(p, O_RDONLY)); }},
        {"__open_2", [](auto* p) { return closes(by_name<int(const char*, int)>("__open_2")(p, O_RDONLY)); }},
        {"__open64_2",
         [](auto* p) { return closes(by_name<int(const char*, int)>("__open64_2")(p, O_RDONLY)); }},
        {"openat", [](auto* p) { return closes(openat(AT_FDCWD, p, O_RDONLY)); }},
        {"openat64", [](auto* p) { return closes(openat64(AT_FDCWD, p, O_RDONLY)); }},
        {"__openat_2",
         [](auto* p) { return closes(by_name<int(int, const char*, int)>("__openat_2")(AT_FDCWD, p, 0)); }},
        {"__openat64_2",
         [](auto* p) { return closes(by_name<int(int, const char*, int)>("__openat64_2")(AT_FDCWD, p, 0)); }},
        {"fopen", [](auto* p) { return closes(std::fopen(p, "r")); }},
        {"fopen64", [](auto* p) { return closes(fopen64(p, "r")); }},
        {"freopen", [](auto* p) { return closes(std::freopen(p, "r", std::fopen("/dev/null", "r"))); }},
        {"stat", [&](auto* p) { return stat(p, &status) == 0; }},
        {"stat64", [&](auto* p) { return stat64(p, &status64) == 0; }},
        {"lstat", [&](auto* p) { return lstat(p, &status) == 0; }},
        {"fstatat", [&](auto* p) { return fstatat(AT_FDCWD, p, &status, 0) == 0; }},
        {"fstatat64", [&](auto* p) { return fstatat64(AT_FDCWD, p, &status64, 0) == 0; }},
        {"statx", [&](auto* p) { return statx(AT_FDCWD, p, 0, STATX_BASIC_STATS, &extended) == 0; }},
        {"__xstat",
         [&](auto* p) { return by_name<int(int, const char*, void*)>("__xstat")(1, p, &status) == 0; }},
        {"__lxstat64",
         [&](auto* p) { return by_name<int(int, const char*, void*)>("__lxstat64")(1, p, &status) == 0; }},
        {"statfs", [&](auto* p) { return statfs(p, &file_system) == 0; }},
        {"statvfs", [&](auto* p) { return statvfs(p, &volume) == 0; }},
        {"access", [](auto* p) { return access(p, R_OK) == 0; }},
        {"faccessat", [](auto* p) { return faccessat(AT_FDCWD, p, R_OK, 0) == 0; }},
        {"euidaccess", [](auto* p) { return euidaccess(p, R_OK) == 0; }},
        {"pathconf", [](auto* p) { return pathconf(p, _PC_NAME_MAX) > 0; }},
        {"realpath",
         [&](auto* p) {
             return realpath(p, text) != nullptr && fs::path(text) == fs::path(p).lexically_normal();
         }},
        {"chmod", [](auto* p) { return chmod(p, 0600) == 0; }},
        {"fchmodat", [](auto* p) { return fchmodat(AT_FDCWD, p, 0600, 0) == 0; }},
        {"chown", [](auto* p) { return chown(p, static_cast<uid_t>(-1), static_cast<gid_t>(-1)) == 0; }},
        {"lchown", [](auto* p) { return lchown(p, static_cast<uid_t>(-1), static_cast<gid_t>(-1)) == 0; }},
        {"truncate", [](auto* p) { return truncate(p, 4) == 0; }},
        {"truncate64", [](auto* p) { return truncate64(p, 4) == 0; }},
        {"utime", [&](auto* p) { return utime(p, &old_times) == 0; }},
        {"utimes", [&](auto* p) { return utimes(p, times) == 0; }},
        {"utimensat", [&](auto* p) { return utimensat(AT_FDCWD, p, precise, 0) == 0; }},
        {"listxattr", [&](auto* p) { return listxattr(p, text, sizeof text) >= 0 || errno == ENOTSUP; }},
    };
    for (const Probe& probe : probes) {
        for (const std::string& path : {in_tmp(), "/var/tmp/" + name_, "//tmp/.//x/../" + name_}) {
            errno = 0;
            EXPECT_TRUE(probe.call(path.c_str())) << probe.name << ' ' << path << ": " << strerror(errno);
        }
    }
}

TEST_F(HostsimPaths, NewFilesAreMadeBelowTheRoot) {
    const std::string old = in_tmp();
    const Probe probes[]{
        {"open", [](auto* p) { return closes(open(p, O_CREAT | O_EXCL | O_WRONLY, 0600)); }},
        {"openat64",
         [](auto* p) { return closes(openat64(AT_FDCWD, p, O_CREAT | O_EXCL | O_WRONLY, 0600)); }},
        {"creat", [](auto* p) { return closes(creat(p, 0600)); }},
        {"creat64", [](auto* p) { return closes(creat64(p, 0600)); }},
        {"fopen", [](auto* p) { return closes(std::fopen(p, "a")); }},
        {"mkdir", [](auto* p) { return mkdir(p, 0700) == 0; }},
        {"mkdirat", [](auto* p) { return mkdirat(AT_FDCWD, p, 0700) == 0; }},
        {"mknod", [](auto* p) { return mknod(p, S_IFREG | 0600, 0) == 0; }},
        {"mkfifo", [](auto* p) { return mkfifo(p, 0600) == 0; }},
        {"mkfifoat", [](auto* p) { return mkfifoat(AT_FDCWD, p, 0600) == 0; }},
        {"link", [&](auto* p) { return link(old.c_str(), p) == 0; }},
        {"linkat", [&](auto* p) { return linkat(AT_FDCWD, old.c_str(), AT_FDCWD, p, 0) == 0; }},
        {"symlink", [&](auto* p) { return symlink(old.c_str(), p) == 0 && access(p, R_OK) == 0; }},
        {"symlinkat", [&](auto* p) { return symlinkat(old.c_str(), AT_FDCWD, p) == 0; }},
        {"posix_spawn", [](auto* p) {
             posix_spawn_file_actions_t actions;
             posix_spawn_file_actions_init(&actions);
             posix_spawn_file_actions_addopen(&actions, 1, p, O_CREAT | O_WRONLY, 0600);
             char* arguments[]{const_cast<char*>("true"), nullptr};
             pid_t child = 0;
             const int result = posix_spawnp(&child, "true", &actions, nullptr, arguments, environ);
             posix_spawn_file_actions_destroy(&actions);
             return result == 0 && waitpid(child, nullptr, 0) == child;
         }}};
    const std::pair<const char*, std::function<int(const char*, const char*)>> moves[]{
        {"rename", [](auto* from, auto* to) { return rename(from, to); }},
        {"renameat", [](auto* from, auto* to) { return renameat(AT_FDCWD, from, AT_FDCWD, to); }},
        {"renameat2", [](auto* from, auto* to) { return renameat2(AT_FDCWD, from, AT_FDCWD, to, 0); }},
    };
    const std::pair<const char*, std::function<int(const char*)>> removals[]{
        {"unlink", [](auto* p) { return unlink(p); }},
        {"unlinkat", [](auto* p) { return unlinkat(AT_FDCWD, p, 0); }},
        {"remove", [](auto* p) { return remove(p); }},
    };
    for (const Probe& probe : probes) {
        const fs::path made = in_root(std::string("-") + probe.name);
        EXPECT_TRUE(probe.call(in_tmp(std::string("-") + probe.name).c_str()))
            << probe.name << ": " << strerror(errno);
        EXPECT_TRUE(fs::exists(fs::symlink_status(made))) << probe.name;
    }
    for (size_t i = 0; i < std::size(moves); ++i) {
        std::ofstream(in_root("-from")) << "x";
        EXPECT_EQ(moves[i].second(in_tmp("-from").c_str(), in_tmp("-to").c_str()), 0) << moves[i].first;
        EXPECT_TRUE(fs::exists(in_root("-to"))) << moves[i].first;
        EXPECT_EQ(removals[i].second(in_tmp("-to").c_str()), 0) << removals[i].first;
        EXPECT_FALSE(fs::exists(in_root("-to"))) << removals[i].first;
    }
}

TEST_F(HostsimPaths, TemplatesGetTheirNamesBack) {
    const std::pair<std::string, std::function<int(char*)>> files[]{
        {"", [](char* p) { return mkstemp(p); }},
        {"", [](char* p) { return mkostemp64(p, O_CLOEXEC); }},
        {".log", [](char* p) { return mkstemps(p, 4); }},
    };
    for (const auto& [suffix, make] : files) {
        std::string name = in_tmp("-XXXXXX") + suffix;
        EXPECT_TRUE(closes(make(name.data())));
        EXPECT_THAT(name, testing::Not(testing::HasSubstr("XXXXXX")));
        EXPECT_TRUE(fs::exists(host_.root() / name.substr(1))) << name;
    }
    std::string directory = in_tmp("-XXXXXX");
    EXPECT_EQ(mkdtemp(directory.data()), directory.data());
    EXPECT_TRUE(fs::is_directory(host_.root() / directory.substr(1)));
}

TEST_F(HostsimPaths, DirectoriesAreListedAndEnteredAsTheHosts) {
    size_t entries = 0;
    DIR* directory = opendir("/tmp");
    ASSERT_NE(directory, nullptr);
    while (readdir(directory) != nullptr) ++entries;
    closedir(directory);
    EXPECT_EQ(entries, 3u) << "two dots and one file";

    dirent** names = nullptr;
    const int found = scandir("/tmp", &names, nullptr, alphasort);
    EXPECT_EQ(found, 3);
    for (int i = 0; i < found; ++i) free(names[i]);
    free(names);

    glob_t matches{};
    ASSERT_EQ(glob("/tmp/hostsim-*", 0, nullptr, &matches), 0);
    EXPECT_EQ(matches.gl_pathc, 1u);
    EXPECT_EQ(matches.gl_pathv[0], in_tmp());
    globfree(&matches);

    static int visited;
    visited = 0;
    EXPECT_EQ(
        nftw(
            "/tmp", [](const char*, const struct stat*, int, struct FTW*) { return ++visited, 0; }, 4, 0),
        0);
    EXPECT_EQ(visited, 2);

    const fs::path before = fs::current_path();
    char text[PATH_MAX];
    ASSERT_EQ(chdir("/tmp"), 0);
    EXPECT_STREQ(getcwd(text, sizeof text), "/tmp");
    EXPECT_EQ(access(name_.c_str(), F_OK), 0);
    fs::current_path(before);

    ASSERT_EQ(symlink("/tmp/aim", in_tmp("-link").c_str()), 0);
    const ssize_t length = readlink(in_tmp("-link").c_str(), text, sizeof text);
    EXPECT_EQ(std::string(text, static_cast<size_t>(length)), "/tmp/aim");
}

TEST_F(HostsimPaths, TheMachinesOwnPathsStayAsTheyAre) {
    EXPECT_EQ(access((host_.root() / "tmp" / name_).c_str(), F_OK), 0);
    EXPECT_EQ(access("/tmp/../etc/passwd", F_OK), 0);
    EXPECT_EQ(access("/tmpfile", F_OK), -1);
    errno = 0;
    EXPECT_EQ(by_name<int(const char*, int)>("access")(nullptr, F_OK), -1);
    EXPECT_EQ(errno, EFAULT);
    EXPECT_EQ(open(("/tmp/" + std::string(PATH_MAX, 'x')).c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    {
        const hostsim::OwnCalls own;
        EXPECT_EQ(access(in_tmp().c_str(), F_OK), -1) << "the simulator's own calls are not redirected";
    }
    errno = E2BIG;
    EXPECT_EQ(access(in_tmp().c_str(), F_OK), 0);
    EXPECT_EQ(errno, E2BIG) << "a call that works leaves errno alone";
}

// ---- The legacy driver's files
// ----------------------------------------------------------------------------------------

TEST_F(HostsimPaths, TheLegacyNodeIsACharacterDeviceThatRequestsReach) {
    struct stat status {};
    ASSERT_EQ(stat(hostsim::kLegacyNodePath, &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    const int fd = open(hostsim::kLegacyNodePath, O_RDWR);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));

    dorfc_hba_cnt count{};
    dorfc_ioctl block{};
    std::memcpy(block.signature, "DORFC", 5);
    block.addrmode = 2;
    block.version = 1;
    block.ioctlstructaddr = reinterpret_cast<uintptr_t>(&count);
    const int copy = dup(fd);
    for (const int each : {fd, copy}) {
        count = {};
        EXPECT_EQ(ioctl(each, DORFC_GET_HBA_COUNT, &block), 0);
        EXPECT_EQ(count.hba_cnt, 1);
    }
    EXPECT_TRUE(closes(copy));
    EXPECT_TRUE(closes(fd));
    const int other = open("/dev/null", O_RDWR);
    EXPECT_EQ(other, fd) << "the number is used again";
    EXPECT_EQ(ioctl(other, DORFC_GET_HBA_COUNT, &block), -1) << "and is no node any more";
    close(other);

    EXPECT_EQ(unlink(hostsim::kLegacyNodePath), 0);
    EXPECT_EQ(access("/dev/null", W_OK), 0) << "only the host's node was touched";
}

TEST_F(HostsimPaths, TheLegacyNodeIsWhatTheModelSays) {
    hostsim::Driver& driver = host_.model().driver(DriverKind::legacy);
    driver.presence = hostsim::Driver::Presence::absent;
    struct stat status {};
    EXPECT_EQ(stat(hostsim::kLegacyNodePath, &status), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(open(hostsim::kLegacyNodePath, O_RDWR), -1);
    driver.presence = hostsim::Driver::Presence::no_device;
    ASSERT_EQ(stat(hostsim::kLegacyNodePath, &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    driver.presence = hostsim::Driver::Presence::present;

    host_.inject({.operation = hostsim::Operation::open, .port = "", .error = EBUSY});
    EXPECT_EQ(open(hostsim::kLegacyNodePath, O_RDWR), -1);
    EXPECT_EQ(errno, EBUSY);
    host_.inject({.operation = hostsim::Operation::close, .port = "", .error = EIO});
    const int fd = open(hostsim::kLegacyNodePath, O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "a failing close closes all the same";
}

TEST_F(HostsimPaths, LinkStateFilesFollowTheModel) {
    const auto files = [] {
        std::string all;
        for (const fs::directory_entry& entry : fs::directory_iterator(hostsim::kLinkStateDirectory)) {
            std::ifstream file(entry.path());
            all.append(std::istreambuf_iterator<char>(file), {});
        }
        return all;
    };
    EXPECT_THAT(files(), testing::HasSubstr("LPORT_ST_READY"));
    host_.model().port(0, 0).link_state = 7;
    EXPECT_THAT(files(), testing::Not(testing::HasSubstr("LPORT_ST_READY")));
    host_.model().driver(DriverKind::legacy).presence = hostsim::Driver::Presence::absent;
    EXPECT_EQ(opendir(hostsim::kLinkStateDirectory), nullptr);
}

// ---- Semaphores
// --------------------------------------------------------------------------------------------------------

TEST(HostsimSemaphores, GoWithTheirHostAndAreNoneOfTheMachines) {
    constexpr key_t kKey = 812;
    int id = -1;
    {
        const Host host(hostsim::hosts::empty());
        id = semget(kKey, 1, IPC_CREAT | IPC_EXCL | 0644);
        ASSERT_GE(id, 0);
        EXPECT_EQ(semget(kKey, 1, 0), id);
        const hostsim::OwnCalls own;
        EXPECT_NE(semget(kKey, 1, 0), id);
    }
    EXPECT_EQ(semctl(id, 0, GETVAL), -1);
    const Host next(hostsim::hosts::empty());
    EXPECT_EQ(semget(kKey, 1, 0), -1) << "another host has none of it";
}

TEST(HostsimSemaphores, OfAKilledHostGoWhenTheNextHostBegins) {
    struct Left {
        int semaphore;
        char root[PATH_MAX];
    };
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
        const Host host(hostsim::hosts::empty());
        Left left{semget(812, 1, IPC_CREAT | 0644), {}};
        host.root().string().copy(left.root, sizeof left.root - 1);
        _exit(write(ends[1], &left, sizeof left) == sizeof left ? 0 : 1);
    }
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    Left left{};
    ASSERT_EQ(read(ends[0], &left, sizeof left), static_cast<ssize_t>(sizeof left));
    closes(ends[0]);
    closes(ends[1]);
    ASSERT_NE(semctl(left.semaphore, 0, GETVAL), -1);

    // A host that has only begun is left alone, and so is one that runs, however old.
    const fs::path users = fs::path(left.root) / ".hostsim/users";
    const Host running(hostsim::hosts::empty());
    const hostsim::OwnCalls own;  // the roots are the machine's
    EXPECT_TRUE(fs::exists(left.root));
    const auto long_ago = fs::file_time_type::clock::now() - std::chrono::hours(1);
    fs::last_write_time(users, long_ago);
    fs::last_write_time(running.root() / ".hostsim/users", long_ago);
    const pid_t next = fork();
    if (next == 0) {
        fs::remove_all(hostsim::State::temporary_root());
        _exit(0);
    }
    ASSERT_EQ(waitpid(next, nullptr, 0), next);
    EXPECT_FALSE(fs::exists(left.root));
    EXPECT_EQ(semctl(left.semaphore, 0, GETVAL), -1);
    EXPECT_TRUE(fs::exists(running.root()));
}

}  // namespace
