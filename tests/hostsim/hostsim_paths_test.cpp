// hostsim_paths_test.cpp - all families of libc functions that take a path, in a process with its own
// simulated host: each must reach the host's "/tmp" and never the machine's. The machine has no files with
// the names used here, so a call that is not redirected fails or leaves no file below the host's root.
#include <dlfcn.h>
#include <fcntl.h>
#include <glob.h>
#include <gmock/gmock.h>
#include <sys/ioctl.h>
#include <sys/sem.h>
#include <sys/syscall.h>

#include <cstring>
#include <fstream>

#include "host.h"
#include "host_builders.h"
#include "own_calls.h"
#include "root_layout.h"
#include "trelm_driver_records.h"

namespace {

namespace fs = std::filesystem;
using hostsim::Host;
using hostsim::layout::kLegacyNode;
using Presence = hostsim::Driver::Presence;

class HostsimPaths : public testing::Test {
  protected:
    HostsimPaths() {
        for (const char* directory : {"tmp", "var/tmp"})
            std::ofstream(host_.root() / directory / name_) << "text";
    }
    std::string in_tmp(const std::string& suffix = "") const { return "/tmp/" + name_ + suffix; }
    Host host_{hostsim::hosts::legacy_ports(1)};
    hostsim::Driver& driver_ = host_.model().driver(hostsim::DriverKind::legacy);
    std::string name_ = "hostsim-paths-" + std::to_string(getpid());
};

// Calls a function by its name. Programs built with an older libc or with _FORTIFY_SOURCE call some that no header
// declares.
template <typename... Arguments>
int call_by_name(const char* name, Arguments... arguments) {
    return reinterpret_cast<int (*)(Arguments...)>(dlsym(RTLD_DEFAULT, name))(arguments...);
}
// Looked up at run time, because the linker warns about direct calls.
const auto kMktemp = reinterpret_cast<char* (*)(char*)>(dlsym(RTLD_DEFAULT, "mktemp"));

bool closes(int fd) { return fd >= 0 && close(fd) == 0; }
bool closes(std::FILE* file) { return file != nullptr && std::fclose(file) == 0; }

bool shows(char* shown, const fs::path& path) {
    const std::unique_ptr<char, decltype(&free)> owned(shown, free);
    return shown != nullptr && shown == path.lexically_normal();
}
template <typename Matches>
bool finds(const char* path, int (*find)(const char*, int, int (*)(const char*, int), Matches*),
           void (*release)(Matches*)) {
    Matches matches{};
    const bool found = find(path, 0, nullptr, &matches) == 0 &&
                       fs::path(matches.gl_pathv[0]).lexically_normal() == fs::path(path).lexically_normal();
    release(&matches);
    return found;
}

using Call = std::function<bool(const char*)>;
constexpr int kHere = AT_FDCWD;

TEST_F(HostsimPaths, EveryFamilyOfCallsIsRedirected) {
    struct stat status {};
    struct statx extended {};
    char text[PATH_MAX];
    const std::string old = in_tmp();
    const std::pair<const char*, Call> looks[]{
        {"open64", [](auto* p) { return closes(open64(p, O_RDONLY)); }},
        {"openat", [](auto* p) { return closes(openat(kHere, p, O_RDONLY)); }},
        {"fopen64", [](auto* p) { return closes(fopen64(p, "r")); }},
        {"freopen", [](auto* p) { return closes(std::freopen(p, "r", std::fopen("/dev/null", "r"))); }},
        {"stat", [&](auto* p) { return stat(p, &status) == 0; }},
        {"statx", [&](auto* p) { return statx(kHere, p, 0, STATX_BASIC_STATS, &extended) == 0; }},
        {"__open_2", [](auto* p) { return closes(call_by_name("__open_2", p, O_RDONLY)); }},
        {"access", [](auto* p) { return access(p, R_OK) == 0; }},
        {"realpath", [&](auto* p) { return realpath(p, text) && text == fs::path(p).lexically_normal(); }},
        {"canonicalize_file_name", [](auto* p) { return shows(canonicalize_file_name(p), p); }},
        {"glob", [](auto* p) { return finds(p, glob, globfree); }},
        {"glob64", [](auto* p) { return finds(p, glob64, globfree64); }},
    };
    for (const auto& [name, call] : looks)
        for (const std::string& path : {in_tmp(), "/var/tmp/" + name_, "//tmp/.//x/../" + name_})
            EXPECT_TRUE(call(path.c_str())) << name << ' ' << path << ": " << strerror(errno);
    const std::pair<const char*, Call> makers[]{
        {"-open", [](auto* p) { return closes(open(p, O_CREAT | O_EXCL | O_WRONLY, 0600)); }},
        {"-creat", [](auto* p) { return closes(creat(p, 0600)); }},
        {"-mkdir", [](auto* p) { return mkdir(p, 0700) == 0; }},
        {"-mkfifo", [](auto* p) { return mkfifo(p, 0600) == 0; }},
        {"-link", [&](auto* p) { return link(old.c_str(), p) == 0; }},
        {"-symlink", [&](auto* p) { return symlink(old.c_str(), p) == 0 && access(p, R_OK) == 0; }},
        {"-rename", [](auto* p) { return closes(creat("/tmp/from", 0600)) && rename("/tmp/from", p) == 0; }},
        {"-XXXXXX", [](auto* p) { return closes(mkstemp(const_cast<char*>(p))) && !strstr(p, "XXX"); }},
        {"-unique-XXXXXX", [](auto* p) { return *kMktemp(const_cast<char*>(p)) && mkdir(p, 0700) == 0; }},
    };
    for (const auto& [name, call] : makers) {
        std::string path = in_tmp(name);
        EXPECT_TRUE(call(path.c_str())) << path << ": " << strerror(errno);
        const fs::path made = host_.root() / path.substr(1);
        EXPECT_TRUE(fs::exists(fs::symlink_status(made))) << path;
        EXPECT_EQ(remove(path.c_str()), 0) << path;
        EXPECT_FALSE(fs::exists(fs::symlink_status(made))) << path;
    }
}

TEST_F(HostsimPaths, ListsTheHostsDirectoriesAndKeepsTheMachinesPaths) {
    std::vector<fs::path> listed(fs::directory_iterator("/tmp"), {});
    EXPECT_EQ(listed, std::vector<fs::path>{in_tmp()});
    const fs::path before = fs::current_path();
    fs::current_path("/tmp");
    EXPECT_EQ(fs::current_path(), "/tmp");
    EXPECT_TRUE(shows(get_current_dir_name(), "/tmp"));
    char small[5];
    EXPECT_STREQ(getcwd(small, sizeof small), "/tmp");
    EXPECT_TRUE(getcwd(small, 4) == nullptr && errno == ERANGE);
    EXPECT_EQ(access(name_.c_str(), F_OK), 0);
    fs::current_path(before);
    fs::create_symlink("/tmp/aim", in_tmp("-link"));
    EXPECT_EQ(fs::read_symlink(in_tmp("-link")), "/tmp/aim");
    for (const ssize_t size : {PATH_MAX, 8, 5}) {
        char target[PATH_MAX]{};
        EXPECT_EQ(readlinkat(kHere, in_tmp("-link").c_str(), target, static_cast<size_t>(size)),
                  std::min<ssize_t>(size, 8));
        EXPECT_EQ(target, std::string("/tmp/aim").substr(0, static_cast<size_t>(size)));
    }

    EXPECT_EQ(access("/tmp/../etc/passwd", F_OK), 0);
    EXPECT_EQ(access("/tmpfile", F_OK), -1);
    EXPECT_EQ(open(("/tmp/" + std::string(PATH_MAX, 'x')).c_str(), O_RDONLY), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(access(in_tmp().c_str(), F_OK), 0);
    EXPECT_EQ(errno, ENAMETOOLONG) << "a call that succeeds leaves errno unchanged";
    const hostsim::OwnCalls own;
    EXPECT_EQ(access(in_tmp().c_str(), F_OK), -1) << "the simulator's own calls are not redirected";
}

// A file of the user who runs the test belongs to the user of the host, in the results of all calls.
TEST_F(HostsimPaths, TheHostsUserOwnsWhatItsProgramsMake) {
    host_.edit([](hostsim::Model& model) { model.effective_user = 4711; });
    const std::string file = in_tmp();
    const char* const path = file.c_str();
    const int fd = open(path, O_RDONLY);
    struct stat status {};
    struct statx extended {};
    void* const result = &status;
    const auto expect_owner = [&](const char* name, int outcome) {
        EXPECT_EQ(std::tuple(outcome, status.st_uid, status.st_gid), std::tuple(0, 4711u, 4711u)) << name;
        status = {};
    };
    for (const char* name : {"stat", "stat64", "lstat", "lstat64"})
        expect_owner(name, call_by_name(name, path, result));
    for (const char* name : {"fstat", "fstat64"}) expect_owner(name, call_by_name(name, fd, result));
    for (const char* name : {"fstatat", "fstatat64"})
        expect_owner(name, call_by_name(name, kHere, path, result, 0));
    for (const char* name : {"__xstat", "__xstat64", "__lxstat", "__lxstat64"})
        expect_owner(name, call_by_name(name, 1, path, result));
    for (const char* name : {"__fxstat", "__fxstat64"}) expect_owner(name, call_by_name(name, 1, fd, result));
    for (const char* name : {"__fxstatat", "__fxstatat64"})
        expect_owner(name, call_by_name(name, 1, kHere, path, result, 0));
    const int outcome = statx(kHere, path, 0, STATX_BASIC_STATS, &extended);
    status.st_uid = extended.stx_uid, status.st_gid = extended.stx_gid;
    expect_owner("statx", outcome);
    EXPECT_TRUE(closes(fd));
}

TEST_F(HostsimPaths, ProgramsAndTheirSemaphoresHaveTheHostsUser) {
    host_.edit([](hostsim::Model& model) { model.effective_user = 4711; });
    using Ids = std::array<uid_t, 3>;
    Ids users, groups;
    EXPECT_EQ(getresuid(&users[0], &users[1], &users[2]) + getresgid(&groups[0], &groups[1], &groups[2]), 0);
    EXPECT_EQ(users, (Ids{4711, 4711, 4711}));
    EXPECT_EQ(groups, users);
    const int set = semget(IPC_PRIVATE, 1, 0600);
    semid_ds status{};
    EXPECT_EQ(semctl(set, 0, IPC_STAT, &status) + semctl(set, 0, IPC_RMID), 0);
    const ipc_perm& owner = status.sem_perm;
    EXPECT_EQ(std::tuple(owner.uid, owner.cuid, owner.gid, owner.cgid),
              std::tuple(4711u, 4711u, 4711u, 4711u));
}

TEST_F(HostsimPaths, TheLegacyNodeIsACharacterDeviceThatRequestsReach) {
    const int fd = open(kLegacyNode, O_RDWR);
    struct stat status {};
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_TRUE(S_ISCHR(status.st_mode));
    dorfc_hba_cnt count{};
    dorfc_ioctl block{};
    std::memcpy(block.signature, "DORFC", 5);
    block.addrmode = 2, block.version = 1, block.ioctlstructaddr = reinterpret_cast<uintptr_t>(&count);
    const int copy = dup(fd);
    EXPECT_EQ(ioctl(copy, DORFC_GET_HBA_COUNT, &block), 0);
    EXPECT_EQ(+count.hba_cnt, 1);
    const unsigned number = 970;
    const auto unused = static_cast<int>(number);
    const std::pair<const char*, std::function<int()>> closers[]{
        {"close", [&] { return close(unused); }},
        {"__close", [&] { return call_by_name("__close", unused); }},
        {"close_range", [&] { return close_range(number - 64, number + 64, 0); }},
        {"closefrom", [&] { return closefrom(unused), 0; }}};
    for (const auto& [name, closer] : closers) {
        EXPECT_EQ(dup3(fd, unused, O_CLOEXEC), unused);
        EXPECT_EQ(ioctl(unused, DORFC_GET_HBA_COUNT, &block), 0) << name;
        EXPECT_EQ(closer(), 0) << name;
        const int other = open("/dev/null", O_RDWR);
        EXPECT_EQ(syscall(SYS_dup3, other, unused, 0), unused) << "the number is used again";
        EXPECT_EQ(ioctl(unused, DORFC_GET_HBA_COUNT, &block), -1) << "and is no node after " << name;
        EXPECT_TRUE(closes(unused) && closes(other));
    }
    EXPECT_TRUE(closes(copy) && closes(fd));
}

TEST_F(HostsimPaths, TheLegacyNodeIsThereAndFailsAsTheModelSays) {
    host_.inject({.operation = hostsim::Operation::open, .occurrence = 2, .error = EBUSY});
    host_.inject({.operation = hostsim::Operation::close, .error = EIO});
    const int next = open(kLegacyNode, O_RDWR);
    EXPECT_EQ(close(next), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fcntl(next, F_GETFD), -1) << "a failed close still closes the descriptor";
    EXPECT_EQ(open(kLegacyNode, O_RDWR), -1);
    EXPECT_EQ(errno, EBUSY);
    driver_.presence = Presence::no_device;
    EXPECT_TRUE(fs::is_regular_file(kLegacyNode));
    driver_.presence = Presence::absent;
    EXPECT_FALSE(fs::exists(kLegacyNode));
}

}  // namespace
