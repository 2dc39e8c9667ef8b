// hostsim_run_test.cpp - programs on a simulated host: what the launcher does with a command, and what of
// libc's answers becomes the host's. Whatever a test needs lies in one directory of its own, which goes with
// the test.
#include <gmock/gmock.h>
#include <sys/sem.h>

#include "support/child.h"
#include "support/programs.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;
using namespace trelm::test;

class HostsimRun : public Programs {
  protected:
    HostsimRun() {
        write("host.json", R"({"name": "esx-run", "release": "6.7.0", "effective_user": 0, "adapters": []})");
        write("next.json", R"({"name": "esx-next", "adapters": []})");
        ::unsetenv("TMPDIR");
        mkfifo(at("gate").c_str(), 0600);
    }
    // A shell script on the host of host.json, in which D is the test's directory.
    Words script(const std::string& text, const Words& options = {}) const {
        return Words{kLauncher, "run", at("host.json")} + options +
               Words{"--", "sh", "-c", "D=" + at("") + "; " + text};
    }
    Outcome run(const std::string& text, const Words& options = {}) const {
        return execute(script(text, options));
    }
    Outcome launch(const Words& arguments) const { return execute(Words{kLauncher} + arguments); }
    // Lets the script go on that waits in `read line < $D/gate`.
    void open_gate() const { std::ofstream(at("gate")) << "go\n"; }
    bool appears(const std::string& name) const {
        return eventually([&] { return fs::exists(at(name)); });
    }
    const Words root_option{"--root", at("root")};
};

TEST_F(HostsimRun, ReturnsTheStatusOfTheCommandOrSaysWhyItDidNotStart) {
    EXPECT_EQ(run("exit 42").status, 42);
    EXPECT_EQ(run("kill -KILL $$").status, 128 + SIGKILL);
    const Outcome missing = launch({"run", at("host.json"), "--", "no-such-program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_THAT(missing.errors, HasSubstr("no-such-program"));
    const pid_t launcher =
        start(script("trap 'exit 7' TERM; : > $D/ready; for i in $(seq 999); do sleep 0.05; done"));
    ASSERT_TRUE(appears("ready"));
    kill(launcher, SIGTERM);
    EXPECT_EQ(finish(launcher).status, 7) << "signals are forwarded";

    write("host.json", "{\"adapters\": [],\n \"no_such_key\": 1}");
    const Outcome mistaken = run("touch $D/started", root_option);
    EXPECT_EQ(mistaken.status, 1);
    EXPECT_THAT(mistaken.errors, AllOf(HasSubstr(at("host.json")), HasSubstr("no_such_key")));
    EXPECT_FALSE(fs::exists(at("started")) || fs::exists(at("root")));
    for (const char* usage : {"", "run", "run host.json", "check", "frobnicate", "run --no-such-option"}) {
        EXPECT_EQ(launch(words_of(usage)).status, 2) << usage;
    }
}

TEST_F(HostsimRun, KeepsTheHostUntilTheLastChildHasEnded) {
    const Outcome outcome =
        run("echo $TRELM_HOSTSIM_ROOT; : > /tmp/file; (read line < $D/gate; "
            "test -e /tmp/file && : > $D/found) > /dev/null 2>&1 & exit 3");
    EXPECT_EQ(outcome.status, 3);
    const fs::path root = outcome.out.substr(0, outcome.out.find('\n'));
    EXPECT_TRUE(fs::exists(root / "tmp/file"));
    open_gate();
    EXPECT_TRUE(eventually([&] { return !fs::exists(root); }));
    EXPECT_TRUE(fs::exists(at("found")));
}

TEST_F(HostsimRun, ShowsTheHostToEveryProgramAndChildAndFollowsEdits) {
    EXPECT_EQ(run("uname -s -n -r; id -u; env -i /bin/sh -c '/bin/uname -s'").out,
              "VMkernel esx-run 6.7.0\n0\nVMkernel\n");
    EXPECT_EQ(run("awk 'BEGIN {system(\"uname\"); \"uname -n\" | getline name; print name}'").out,
              "VMkernel\nesx-run\n");
    const std::string unique = fs::path(at("")).parent_path().filename();
    EXPECT_EQ(run("u=" + unique +
                  "-x; echo one > /tmp/$u; (cd /tmp && pwd -P && cat $u); d=$(mktemp -d /var/tmp/$u.XXXXXX);"
                  "cd $d && ls /var/tmp | grep -c $u")
                  .out,
              "/tmp\none\n1\n");
    EXPECT_FALSE(fs::exists("/tmp/" + unique + "-x"));
    EXPECT_EQ(
        run("uname -n; cp $D/next.json $D/host.json; uname -n; echo broken > $D/host.json; uname -n").out,
        "esx-run\nesx-next\nesx-next\n");
}

TEST_F(HostsimRun, KeepsARootThatWasGivenAndSharesItAmongCommandsOfOneHostOnly) {
    const pid_t first =
        start(script(": > /tmp/ready; read line < $D/gate; cat /tmp/second", root_option), at("first"));
    ASSERT_TRUE(appears("root/tmp/ready"));
    EXPECT_EQ(run("test -e /tmp/ready && echo hello > /tmp/second; : > /var/tmp/log", root_option).status, 0);
    const Outcome refused = launch(Words{"run", at("next.json")} + root_option + Words{"--", "true"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr(at("host.json")));
    EXPECT_TRUE(fs::exists(at("root/.hostsim/state"))) << "the second command was not the last";
    open_gate();
    EXPECT_EQ(finish(first).status, 0);
    EXPECT_EQ(text_of(at("first")), "hello\n");
    EXPECT_FALSE(fs::exists(at("root/.hostsim/state")));
    EXPECT_EQ(run("cat /tmp/second; ls /var/tmp", root_option).out, "hello\nlog\n");
}

TEST_F(HostsimRun, KeepsSemaphoresApartAndRemovesThem) {
    // IPC_CREAT 01000, IPC_EXCL 02000: each host is the first to make its set.
    const std::string make =
        "perl -e '$id = semget(812, 1, 03644); print defined $id ? $id : \"taken\", \"\\n\"'";
    const pid_t first =
        start(script(make + "; " + make + "; : > $D/ready; read line < $D/gate"), at("first"));
    ASSERT_TRUE(appears("ready"));
    const int id = std::stoi(text_of(at("first")));
    EXPECT_THAT(text_of(at("first")), HasSubstr("taken")) << "the processes of one host share it";
    EXPECT_NE(semctl(id, 0, GETVAL), -1);
    const int other = std::stoi(run(make).out);
    EXPECT_NE(other, id);
    EXPECT_EQ(semctl(other, 0, GETVAL), -1);
    open_gate();
    finish(first);
    EXPECT_EQ(semctl(id, 0, GETVAL), -1);
}

TEST_F(HostsimRun, WritesAHostFileThatIsSoundAndChecksOthers) {
    EXPECT_EQ(launch({"new", at("new.json")}).status, 0);
    write("mine.json", "mine");
    EXPECT_THAT(launch({"new", at("mine.json")}).errors, HasSubstr(at("mine.json")));
    EXPECT_EQ(text_of(at("mine.json")), "mine");
    const Outcome sound = launch({"check", at("new.json")});
    EXPECT_EQ(sound.status, 0) << sound.errors;
    EXPECT_THAT(sound.out, StartsWith("sound: " + at("new.json")));
    const Outcome mixed = launch({"check", at("mine.json"), at("absent.json")});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_THAT(mixed.errors, AllOf(HasSubstr(at("mine.json") + ":1:"), HasSubstr("absent.json")));
}

}  // namespace
