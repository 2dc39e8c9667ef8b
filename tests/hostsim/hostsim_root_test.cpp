// hostsim_root_test.cpp - the root directory of a host on a machine with hostile users: which directories are
// accepted, what is removed and what stays. golden/roots.txt has what can be shown in a few commands.
#include <gmock/gmock.h>
#include <sys/sem.h>

#include <system_error>

#include "host.h"
#include "host_builders.h"
#include "root_layout.h"
#include "support/child.h"
#include "support/libc_replacements.h"
#include "support/programs.h"

static bool disk_is_full = false;

REPLACES_LIBC(int, posix_fallocate, (int fd, off_t offset, off_t size)) {
    return disk_is_full ? ENOSPC : NEXT_OF(posix_fallocate)(fd, offset, size);
}

namespace {

namespace fs = std::filesystem;
namespace layout = hostsim::layout;
using testing::AllOf;
using testing::HasSubstr;
using namespace trelm::test;

class HostsimRoot : public Programs {
  protected:
    HostsimRoot() {
        write("host.json", R"({"name": "esx-root", "adapters": []})");
        fs::create_directory(at("temporary"));
        setenv("TMPDIR", at("temporary").c_str(), 1);
    }
    ~HostsimRoot() override { unsetenv("TMPDIR"); }
    ProgramResult run(const std::string& script, const Words& options = {}) const {
        return execute(Words{kLauncher, "run", at("host.json")} + options +
                       Words{"--", "sh", "-c", "D=" + at("") + "; " + script});
    }
    ProgramResult clean(const Words& options = {}) const {
        return execute(Words{kLauncher, "clean"} + options);
    }

    // Runs a host that creates a semaphore set, and kills all of its processes. Returns the id of the set.
    int kill_host(const Words& options = {}) const {
        const Words command{"perl", "-e",
                            "$| = 1; print semget(812, 1, 01600); open F, '>', shift;"
                            "print F \"$$ \", getppid; close F; sleep 999",
                            at("ready")};
        const pid_t launcher =
            start(Words{kLauncher, "run", at("host.json")} + options + Words{"--"} + command);
        EXPECT_TRUE(eventually([&] { return !text_of(at("ready")).empty(); }));
        pid_t program = 0, janitor = 0;
        std::istringstream(text_of(at("ready"))) >> program >> janitor;
        for (const pid_t process : {janitor, program, launcher}) kill(process, SIGKILL);
        finish(launcher);
        EXPECT_TRUE(
            eventually([&] { return text_of("/proc/" + std::to_string(program) + "/maps").empty(); }));
        fs::remove(at("ready"));
        return std::stoi(text_of(at("out")));
    }
    fs::path only_root() const { return fs::directory_iterator(at("temporary"))->path(); }
    static bool exists(int set) { return semctl(set, 0, GETVAL) != -1; }

    const Words root_option{"--root", at("root")};
};

TEST_F(HostsimRoot, IsNeverInADirectoryOfAnotherUser) {
    fs::create_directory(at("others"));
    if (chown(at("others").c_str(), 65534, 65534) != 0) GTEST_SKIP() << "this user cannot act for another";
    const std::pair<const char*, const char*> refused[]{{"others", "belongs to another user (uid 65534)"},
                                                        {"others/new/root", "above the root"}};
    for (const auto& [root, reason] : refused) {
        const ProgramResult outcome = run(": > $D/ran", {"--root", at(root)});
        EXPECT_EQ(outcome.status, 125) << root;
        EXPECT_THAT(outcome.errors, AllOf(HasSubstr(at("others") + ": "), HasSubstr(reason)));
    }
    EXPECT_TRUE(fs::is_empty(at("others")) && !fs::exists(at("ran")));
}

// Runs as an unprivileged user, who cannot harm the machine if the check fails.
TEST_F(HostsimRoot, IsNeverTheMachinesOwn) {
    fs::permissions(at(""), fs::perms(0755));
    const Words harmless{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    for (const char* root : {"/", "//", "/tmp/.."}) {
        const Words command{kLauncher, "run", at("host.json"), "--root", root, "--", "true"};
        const ProgramResult outcome = execute(getuid() == 0 ? harmless + command : command);
        EXPECT_EQ(outcome.status, 125) << root;
        EXPECT_THAT(outcome.errors, HasSubstr("the machine's own root")) << root;
    }
}

TEST_F(HostsimRoot, OfAKilledHostGoesWithTheNextStartOrOnRequest) {
    const int first = kill_host();
    const fs::path root = only_root();
    EXPECT_TRUE(exists(first));
    EXPECT_EQ(run("true").status, 0);
    EXPECT_FALSE(exists(first));
    EXPECT_FALSE(fs::exists(root));

    const int second = kill_host();
    const std::string temporary = only_root();
    const int third = kill_host(root_option);
    EXPECT_EQ(clean(root_option).out, "cleared: " + temporary + ", semaphore sets: 1\ncleared: " +
                                          at("root") + ", semaphore sets: 1\n");
    EXPECT_FALSE(exists(second) || exists(third) || fs::exists(temporary));
    EXPECT_TRUE(fs::exists(at("root") + layout::kTmp));
}

// Of the temporary files, only roots that hosts of this user left behind are removed.
TEST_F(HostsimRoot, IsNotRemovedForAForgedOne) {
    const int set = kill_host();
    const fs::path real = only_root();
    const auto forge = [&](const std::string& name) {
        fs::copy(real, at("temporary/trelm-hostsim-" + name),
                 fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        return at("temporary/trelm-hostsim-" + name);
    };
    const std::string linked = forge("linked"), open_to_all = forge("open"), hard_mark = forge("mark"),
                      hard_lock = forge("lock"), hard_state = forge("state"), others = forge("others"),
                      named = forge("named");
    fs::rename(linked + layout::kOwn, at("victim"));
    fs::create_directory_symlink(at("victim"), linked + layout::kOwn);
    fs::permissions(open_to_all, fs::perms(0777));
    fs::create_hard_link(hard_mark + layout::kMark, at("mark"));
    fs::create_hard_link(hard_lock + layout::kUsers, at("users"));
    fs::remove(hard_state + layout::kState);
    fs::create_hard_link(real.string() + layout::kState, hard_state + layout::kState);
    const bool is_others = chown(others.c_str(), 65534, 65534) == 0;
    fs::remove_all(named);
    kill_host({"--root", named});
    // Makes the directories old, so that they do not look like hosts that are being created.
    for (const std::string& root : {linked, open_to_all, hard_mark, hard_lock, hard_state, others, named})
        fs::last_write_time(root + layout::kUsers, fs::file_time_type::clock::now() - std::chrono::hours(1));
    fs::rename(real, at("real"));
    EXPECT_EQ(run("true").status, 0);
    for (const std::string& root : {linked, open_to_all, hard_mark, hard_lock, named})
        EXPECT_TRUE(fs::exists(root + layout::kState)) << root;
    EXPECT_EQ(fs::exists(others), is_others);
    EXPECT_TRUE(exists(set)) << "the list of semaphore sets in a file with two hard links is ignored";
    fs::rename(at("real"), real);
    EXPECT_THAT(clean().out, HasSubstr("cleared: " + real.string()));
    EXPECT_EQ(clean({"--root", named}).status, 0);
}

// A host without room for its shared file would later end with a bus error.
TEST_F(HostsimRoot, IsNotMadeOnAFullDisk) {
    disk_is_full = true;
    EXPECT_THROW(hostsim::Host(hostsim::hosts::empty()), std::system_error);
    disk_is_full = false;
    EXPECT_TRUE(fs::is_empty(at("temporary")));
}

}  // namespace
