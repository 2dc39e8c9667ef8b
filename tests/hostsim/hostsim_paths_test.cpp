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

// Programs built with _FORTIFY_SOURCE open files with this function.
const auto kOpen2 = reinterpret_cast<int (*)(const char*, int)>(dlsym(RTLD_DEFAULT, "__open_2"));
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
        {"__open_2", [](auto* p) { return closes(kOpen2(p, O_RDONLY)); }},
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
    const std::string path = in_tmp();
    const int fd = open(path.c_str(), O_RDONLY);
    struct stat s {};
    struct statx x {};
    const auto old = [](const char* name) { return dlsym(RTLD_DEFAULT, name); };
    const auto by_path = [&](const char* name) {
        return reinterpret_cast<int (*)(int, const char*, void*)>(old(name))(1, path.c_str(), &s);
    };
    const auto by_fd = [&](const char* name) {
        return reinterpret_cast<int (*)(int, int, void*)>(old(name))(1, fd, &s);
    };
    const auto by_dir = [&](const char* name) {
        return reinterpret_cast<int (*)(int, int, const char*, void*, int)>(old(name))(1, kHere, path.c_str(),
                                                                                       &s, 0);
    };
    auto* const s64 = reinterpret_cast<struct stat64*>(&s);
    const std::pair<const char*, std::function<int()>> calls[]{
        {"stat", [&] { return stat(path.c_str(), &s); }},
        {"stat64", [&] { return stat64(path.c_str(), s64); }},
        {"lstat", [&] { return lstat(path.c_str(), &s); }},
        {"lstat64", [&] { return lstat64(path.c_str(), s64); }},
        {"fstat", [&] { return fstat(fd, &s); }},
        {"fstat64", [&] { return fstat64(fd, s64); }},
        {"fstatat", [&] { return fstatat(kHere, path.c_str(), &s, 0); }},
        {"fstatat64", [&] { return fstatat64(kHere, path.c_str(), s64, 0); }},
        {"__xstat", [&] { return by_path("__xstat"); }},
        {"__xstat64", [&] { return by_path("__xstat64"); }},
        {"__lxstat", [&] { return by_path("__lxstat"); }},
        {"__lxstat64", [&] { return by_path("__lxstat64"); }},
        {"__fxstat", [&] { return by_fd("__fxstat"); }},
        {"__fxstat64", [&] { return by_fd("__fxstat64"); }},
        {"__fxstatat", [&] { return by_dir("__fxstatat"); }},
        {"__fxstatat64", [&] { return by_dir("__fxstatat64"); }},
        {"statx",
         [&] {
             const int result = statx(kHere, path.c_str(), 0, STATX_BASIC_STATS, &x);
             s.st_uid = x.stx_uid, s.st_gid = x.stx_gid;
             return result;
         }},
    };
    for (const auto& [name, call] : calls) {
        s = {};
        EXPECT_EQ(call(), 0) << name;
        EXPECT_EQ(s.st_uid, 4711u) << name;
        EXPECT_EQ(s.st_gid, getegid()) << name;
    }
    EXPECT_TRUE(closes(fd));
    const int set = semget(IPC_PRIVATE, 1, 0600);
    semid_ds status{};
    EXPECT_EQ(semctl(set, 0, IPC_STAT, &status), 0);
    EXPECT_EQ(semctl(set, 0, IPC_RMID), 0);
    uid_t real, effective, saved;
    EXPECT_EQ(getresuid(&real, &effective, &saved), 0);
    EXPECT_THAT((std::array{real, effective, saved}), testing::Each(4711));
    EXPECT_EQ(getresgid(&real, &effective, &saved), 0);
    EXPECT_THAT((std::array{real, effective, saved}), testing::Each(getegid()));
    for (const uid_t id :
         {status.sem_perm.uid, status.sem_perm.cuid, status.sem_perm.gid, status.sem_perm.cgid})
        EXPECT_EQ(id, geteuid());
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
    const unsigned number = 1000;
    const auto unused = static_cast<int>(number);
    const std::pair<const char*, std::function<int()>> closers[]{
        {"close", [&] { return close(unused); }},
        {"__close", [&] { return reinterpret_cast<int (*)(int)>(dlsym(RTLD_DEFAULT, "__close"))(unused); }},
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
