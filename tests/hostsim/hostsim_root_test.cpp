// hostsim_root_test.cpp - the root directory of a host on a machine with hostile users: which directories are
// accepted, what is removed and what stays.
#include <gmock/gmock.h>
#include <sys/sem.h>

#include <cerrno>
#include <system_error>

#include "host.h"
#include "host_builders.h"
#include "support/child.h"
#include "support/libc_replacements.h"
#include "support/programs.h"

namespace {

bool disk_is_full = false;

}  // namespace

REPLACES_LIBC(int, posix_fallocate, (int fd, off_t offset, off_t size)) {
    return disk_is_full ? ENOSPC : NEXT_OF(posix_fallocate)(fd, offset, size);
}

namespace {

namespace fs = std::filesystem;
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

TEST_F(HostsimRoot, IsNewEmptyOrARootAlready) {
    fs::create_directories(at("full/dev"));
    fs::create_directories(at("full/tmp"));
    write("full/dev/file", "text");
    fs::create_directory(at("shared"));
    fs::permissions(at("shared"), fs::perms(0777));
    fs::create_directory(at("empty"));
    fs::create_directory_symlink(at("empty"), at("link"));
    fs::create_directory(at("others"));
    std::vector<std::pair<std::string, const char*>> refused{
        {at("full"), "neither empty nor the root"},
        {at("shared"), "others may write"},
        {at("link"), "symbolic link"},
        {at("host.json"), "Not a directory"},
        {at("a:b"), "colon"},
    };
    std::vector<std::string> unsafe{at("shared")};
    if (chown(at("others").c_str(), 65534, 65534) == 0) {
        refused.emplace_back(at("others"), "belongs to another user (uid 65534)");
        unsafe.push_back(at("others"));
    }
    for (const std::string& above : unsafe) {
        const ProgramResult outcome = run("true", {"--root", above + "/new/root"});
        EXPECT_EQ(outcome.status, 125) << above;
        EXPECT_THAT(outcome.errors, AllOf(HasSubstr(above + ": "), HasSubstr("above the root")));
        EXPECT_TRUE(fs::is_empty(above)) << above;
    }
    for (const auto& [root, reason] : refused) {
        const ProgramResult outcome = run(": > $D/ran", {"--root", root});
        EXPECT_EQ(outcome.status, 125) << root;
        EXPECT_THAT(outcome.errors, AllOf(HasSubstr(root + ": "), HasSubstr(reason)));
        EXPECT_FALSE(fs::exists(at("ran"))) << root;
    }
    EXPECT_EQ(text_of(at("full/dev/file")), "text");
    EXPECT_EQ(fs::status(at("full/tmp")).permissions() & fs::perms::others_write, fs::perms::none);
    EXPECT_TRUE(fs::is_empty(at("shared")) && fs::is_empty(at("empty")));
    EXPECT_FALSE(fs::exists(at("a:b")));

    EXPECT_EQ(run("true", {"--root", at("empty")}).status, 0);
    EXPECT_EQ(run("true", {"--root", at("empty") + "/"}).status, 0) << "the directory is a root now";
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

TEST_F(HostsimRoot, LosesOnlyWhatAHostMade) {
    EXPECT_EQ(run(": > /tmp/file; : > /dev/char/vmkdriver/other", root_option).status, 0);
    fs::create_directory(at("root/mine"));
    write("root/proc", "mine");
    EXPECT_EQ(run("true", root_option).status, 0);
    EXPECT_TRUE(fs::exists(at("root/tmp/file")) && fs::exists(at("root/mine")));
    EXPECT_TRUE(fs::exists(at("root/dev/char/vmkdriver/other")));
    EXPECT_EQ(text_of(at("root/proc")), "mine");
    EXPECT_EQ(fs::status(at("root")).permissions(), fs::perms(0700));
    EXPECT_FALSE(fs::exists(at("root/.hostsim/state")) || fs::exists(at("root/.hostsim/bin")));
}

TEST_F(HostsimRoot, DoesNotFollowLinksWithin) {
    fs::create_directory(at("victim"));
    write("victim/state", "text");
    for (const std::string name : {"dev", "luns", "tmp", ".hostsim"}) {
        ASSERT_EQ(run("true", root_option).status, 0);
        fs::remove_all(at("root/" + name));
        fs::create_directory_symlink(at("victim"), at("root/" + name));
        const ProgramResult outcome = run("true", root_option);
        EXPECT_EQ(outcome.status, 125) << name;
        EXPECT_THAT(outcome.errors, HasSubstr(at("root")));
        EXPECT_EQ(clean(root_option).status, name == ".hostsim" ? 1 : 0);
        EXPECT_EQ(std::distance(fs::directory_iterator(at("victim")), {}), 1) << name;
        fs::remove_all(at("root"));
    }
}

TEST_F(HostsimRoot, KeepsWhatEveryKindOfLunHolds) {
    fs::copy_file(source_dir() + "/hostsim/hosts/legacy.json", at("host.json"),
                  fs::copy_options::overwrite_existing);
    write("block", std::string(512, 'x'));
    EXPECT_EQ(run("trelmctl scsi 0 0 0 2a000000000700000100 --out $D/block", root_option).errors, "");
    EXPECT_EQ(run("trelmctl scsi 0 0 0 28000000000700000100 --in 512 --raw", root_option).out,
              std::string(512, 'x'));
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
    EXPECT_TRUE(fs::exists(at("root/tmp")));
    EXPECT_EQ(clean(root_option).out, "nothing to clear\n");
    const ProgramResult busy = run("'" + kLauncher + "' clean --root $D/root", root_option);
    EXPECT_EQ(busy.status, 1);
    EXPECT_THAT(busy.errors, HasSubstr(at("root") + ": a host runs here"));
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
    fs::rename(linked + "/.hostsim", at("victim"));
    fs::create_directory_symlink(at("victim"), linked + "/.hostsim");
    fs::permissions(open_to_all, fs::perms(0777));
    fs::create_hard_link(hard_mark + "/.hostsim/mark", at("mark"));
    fs::create_hard_link(hard_lock + "/.hostsim/users", at("users"));
    fs::remove(hard_state + "/.hostsim/state");
    fs::create_hard_link(real / ".hostsim/state", hard_state + "/.hostsim/state");
    const bool is_others = chown(others.c_str(), 65534, 65534) == 0;
    fs::remove_all(named);
    kill_host({"--root", named});
    // Makes the directories old, so that they do not look like hosts that are being created.
    for (const std::string& root : {linked, open_to_all, hard_mark, hard_lock, hard_state, others, named})
        fs::last_write_time(root + "/.hostsim/users",
                            fs::file_time_type::clock::now() - std::chrono::hours(1));
    fs::rename(real, at("real"));
    EXPECT_EQ(run("true").status, 0);
    for (const std::string& root : {linked, open_to_all, hard_mark, hard_lock, named})
        EXPECT_TRUE(fs::exists(root + "/.hostsim/state")) << root;
    EXPECT_EQ(fs::exists(others), is_others);
    EXPECT_TRUE(exists(set)) << "the list of semaphore sets in a file with two hard links is ignored";
    fs::rename(at("real"), real);
    EXPECT_THAT(clean().out, HasSubstr("cleared: " + real.string()));
    EXPECT_EQ(clean({"--root", named}).status, 0);
}

TEST_F(HostsimRoot, ThatCannotBeHadLeavesNothing) {
    disk_is_full = true;
    try {
        const hostsim::Host host(hostsim::hosts::empty());
        ADD_FAILURE() << "the host would later end with a bus error";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code().value(), ENOSPC);
    }
    disk_is_full = false;
    const Words command{kLauncher, "run", at("host.json"), "--", "true"};
    const ProgramResult limited = execute(Words{"/bin/sh", "-c", "ulimit -f 8; \"$@\"", "sh"} + command);
    EXPECT_EQ(limited.status, 125);
    EXPECT_THAT(limited.errors, HasSubstr("File too large"));
    EXPECT_TRUE(fs::is_empty(at("temporary")));
}

TEST_F(HostsimRoot, IsRemovedHoweverDeepAndClosedItsDirectoriesAre) {
    EXPECT_EQ(run("ln -s $D/host.json /tmp/link; "
                  "perl -e 'chdir \"/tmp\"; (mkdir \"d\") && chdir \"d\" for 1 .. 1100; chmod 0, \".\"'")
                  .status,
              0);
    EXPECT_TRUE(fs::is_empty(at("temporary")));
    EXPECT_TRUE(fs::exists(at("host.json")));
}

}  // namespace
