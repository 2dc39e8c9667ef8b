// hostsim_run_test.cpp - programs on a simulated host: what the launcher does with a command, and what of
// libc's answers becomes the host's. Whatever a test needs lies in one directory of its own, which goes with
// the test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

const std::string kLauncher = TRELM_BINARY_DIR "/bin/trelm-hostsim";
const std::string kLibrary = TRELM_BINARY_DIR "/lib/libtrelm.so";

std::string text_of(const fs::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct Outcome {
    int status = -1;  // as a shell tells it
    std::string out;
    std::string errors;
};

class HostsimRun : public testing::Test {
  protected:
    HostsimRun() {
        write("host.json", R"({"name": "esx-run", "adapters": []})");
        ::unsetenv("TMPDIR");
    }
    ~HostsimRun() override {
        std::error_code error;
        fs::remove_all(directory_, error);
    }

    fs::path at(const std::string& name) const { return directory_ / name; }
    void write(const std::string& name, const std::string& text) const { std::ofstream(at(name)) << text; }

    pid_t start(const std::vector<std::string>& arguments) const {
        const pid_t child = fork();
        if (child != 0) return child;
        if (freopen(at("out").c_str(), "w", stdout) == nullptr ||
            freopen(at("errors").c_str(), "w", stderr) == nullptr)
            _exit(99);
        std::vector<char*> list{const_cast<char*>(kLauncher.c_str())};
        for (const std::string& argument : arguments) list.push_back(const_cast<char*>(argument.c_str()));
        list.push_back(nullptr);
        execv(kLauncher.c_str(), list.data());
        _exit(99);
    }
    Outcome finish(pid_t launcher) const {
        int status = 0;
        if (waitpid(launcher, &status, 0) != launcher || !WIFEXITED(status)) return {};
        return {WEXITSTATUS(status), text_of(at("out")), text_of(at("errors"))};
    }
    Outcome launch(const std::vector<std::string>& arguments) const { return finish(start(arguments)); }
    // Runs a shell script on the host of host.json.
    Outcome run(const std::string& script, const std::vector<std::string>& options = {}) const {
        std::vector<std::string> arguments{"run", at("host.json")};
        arguments.insert(arguments.end(), options.begin(), options.end());
        arguments.insert(arguments.end(), {"--", "sh", "-c", script});
        return launch(arguments);
    }

    // Bounded only so that a fault does not hang the test.
    template <typename Condition>
    static bool comes_true(const Condition& condition) {
        for (int i = 0; i < 6000; ++i) {
            if (condition()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

  private:
    static fs::path make_directory() {
        std::string name = (fs::temp_directory_path() / "hostsim-run-XXXXXX").string();
        return fs::canonical(mkdtemp(name.data()));
    }
    fs::path directory_ = make_directory();
};

// ---- The command
// ------------------------------------------------------------------------------------------------------

TEST_F(HostsimRun, ReturnsTheStatusOfTheCommand) {
    EXPECT_EQ(run("exit 0").status, 0);
    EXPECT_EQ(run("exit 42").status, 42);
    EXPECT_EQ(run("kill -KILL $$").status, 128 + SIGKILL);

    const Outcome missing = launch({"run", at("host.json"), "--", "no-such-program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_THAT(missing.errors, HasSubstr("no-such-program"));
    EXPECT_EQ(launch({"run", at("host.json"), "--", at("host.json")}).status, 126)
        << "a file that is no program";
}

TEST_F(HostsimRun, StartsNothingOnAHostFileWithAMistake) {
    write("host.json", "{\"adapters\": [],\n \"no_such_key\": 1}");
    const Outcome outcome = run("touch " + at("started").string(), {"--root", at("root")});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_THAT(outcome.errors, HasSubstr(at("host.json").string()));
    EXPECT_THAT(outcome.errors, HasSubstr("no_such_key"));
    EXPECT_FALSE(fs::exists(at("started")));
    EXPECT_FALSE(fs::exists(at("root")));
}

TEST_F(HostsimRun, ForwardsSignalsToTheCommand) {
    const pid_t launcher =
        start({"run", at("host.json"), "--", "sh", "-c",
               "trap 'exit 7' TERM; : > " + at("ready").string() + "; while :; do sleep 0.05; done"});
    ASSERT_TRUE(comes_true([&] { return fs::exists(at("ready")); }));
    kill(launcher, SIGTERM);
    EXPECT_EQ(finish(launcher).status, 7);
}

TEST_F(HostsimRun, KeepsTheHostUntilTheLastChildHasEnded) {
    ASSERT_EQ(mkfifo(at("gate").c_str(), 0600), 0);
    const std::string gate = at("gate").string();
    const Outcome outcome =
        run("echo $TRELM_HOSTSIM_ROOT; : > /tmp/file; (read line < " + gate + "; test -e /tmp/file && : > " +
            at("found").string() + ") > /dev/null 2>&1 & exit 3");
    EXPECT_EQ(outcome.status, 3);
    const fs::path root = outcome.out.substr(0, outcome.out.find('\n'));
    EXPECT_TRUE(fs::exists(root / "tmp/file"));
    std::ofstream(gate) << "go\n";
    EXPECT_TRUE(comes_true([&] { return !fs::exists(root); }));
    EXPECT_TRUE(fs::exists(at("found")));
}

// ---- The host
// ----------------------------------------------------------------------------------------------------------

TEST_F(HostsimRun, ShowsTheHostToEveryProgramAndChild) {
    write("host.json", R"({"name": "esx-run", "release": "6.7.0", "effective_user": 0, "adapters": []})");
    EXPECT_EQ(run("uname -s -n -r; id -u; env -i /bin/sh -c '/bin/uname -s'").out,
              "VMkernel esx-run 6.7.0\n0\nVMkernel\n");
    const std::string unique = "hostsim-" + at("").parent_path().filename().string();
    const Outcome files =
        run("echo one > /tmp/" + unique + "; (cd /tmp && pwd -P && cat " + unique +
            "); d=$(mktemp -d /var/tmp/" + unique + ".XXXXXX); cd $d && ls /var/tmp | grep -c " + unique);
    EXPECT_EQ(files.out, "/tmp\none\n1\n") << files.errors;
    EXPECT_FALSE(fs::exists("/tmp/" + unique));
}

TEST_F(HostsimRun, ServesPython) {
    if (std::system("python3 -c '' > /dev/null 2>&1") != 0) GTEST_SKIP() << "python3 is not installed";
    write(
        "program.py",
        "import os, subprocess, tempfile, threading\n"
        "with tempfile.NamedTemporaryFile(dir='/tmp', prefix='seen-') as f:\n"
        "    print(any(n.startswith('seen-') for n in os.listdir('/tmp')))\n"
        "    print(subprocess.check_output(['ls', f.name], text=True).strip() == f.name)\n"
        "threads = [threading.Thread(target=lambda i=i: open(f'/tmp/t{i}', 'w').close()) for i in range(8)]\n"
        "[t.start() for t in threads]; [t.join() for t in threads]\n"
        "print(len([n for n in os.listdir('/tmp') if n[0] == 't']), os.uname().sysname, os.geteuid())\n");
    const Outcome outcome = launch({"run", at("host.json"), "--", "python3", at("program.py")});
    EXPECT_EQ(outcome.out, "True\nTrue\n8 VMkernel 0\n") << outcome.errors;
}

TEST_F(HostsimRun, FollowsEditsOfTheHostFile) {
    write("next.json", R"({"name": "esx-next", "adapters": []})");
    const std::string host = at("host.json").string();
    const Outcome outcome = run("uname -n; cp " + at("next.json").string() + " " + host +
                                "; uname -n; echo broken > " + host + "; uname -n");
    EXPECT_EQ(outcome.out, "esx-run\nesx-next\nesx-next\n") << outcome.errors;
}

TEST_F(HostsimRun, KeepsTheFilesOfARootThatWasGiven) {
    EXPECT_EQ(run("echo kept > /tmp/file; echo too > /var/tmp/log", {"--root", at("root")}).status, 0);
    EXPECT_EQ(text_of(at("root/tmp/file")), "kept\n");
    EXPECT_EQ(run("cat /tmp/file /var/tmp/log", {"--root", at("root")}).out, "kept\ntoo\n");
    EXPECT_FALSE(fs::exists(at("root/.hostsim/state")));
    const Outcome temporary = run("echo $TRELM_HOSTSIM_ROOT");
    EXPECT_THAT(temporary.out, StartsWith("/tmp/"));
    EXPECT_FALSE(fs::exists(temporary.out.substr(0, temporary.out.find('\n'))));
}

TEST_F(HostsimRun, SharesARootAmongCommandsOfOneHostOnly) {
    ASSERT_EQ(mkfifo(at("gate").c_str(), 0600), 0);
    write("other.json", R"({"name": "esx-other", "adapters": []})");
    const pid_t first = start({"run", at("host.json"), "--root", at("root"), "--", "sh", "-c",
                               ": > /tmp/ready; read line < " + at("gate").string() + "; cat /tmp/second"});
    ASSERT_TRUE(comes_true([&] { return fs::exists(at("root/tmp/ready")); }));
    EXPECT_EQ(run("test -e /tmp/ready && echo hello > /tmp/second", {"--root", at("root")}).status, 0);
    const Outcome refused = launch({"run", at("other.json"), "--root", at("root"), "--", "true"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr(at("host.json").string()));
    EXPECT_TRUE(fs::exists(at("root/.hostsim/state"))) << "the second command was not the last";
    std::ofstream(at("gate")) << "go\n";
    EXPECT_EQ(finish(first).status, 0);
    EXPECT_FALSE(fs::exists(at("root/.hostsim/state")));
}

TEST_F(HostsimRun, KeepsSemaphoresApartAndRemovesThem) {
    // IPC_CREAT 01000, IPC_EXCL 02000: each host is the first to make its set.
    const std::string script =
        "perl -e '$id = semget(812, 1, 03644); print defined $id ? $id : \"taken\", \"\\n\"'";
    ASSERT_EQ(mkfifo(at("gate").c_str(), 0600), 0);
    const pid_t first =
        start({"run", at("host.json"), "--", "sh", "-c",
               script + " > " + at("first").string() + "; " + script + " >> " + at("first").string() +
                   "; : > " + at("ready").string() + "; read line < " + at("gate").string()});
    ASSERT_TRUE(comes_true([&] { return fs::exists(at("ready")); }));
    const std::string ids = text_of(at("first"));
    const int id = std::atoi(ids.c_str());
    EXPECT_THAT(ids, HasSubstr("taken")) << "the processes of one host share it";
    EXPECT_NE(semctl(id, 0, GETVAL), -1);
    // start() writes to the same files as launch(), so the second host's answer goes to a file of its own.
    run(script + " > " + at("second").string());
    EXPECT_THAT(text_of(at("second")), Not(HasSubstr("taken")));
    EXPECT_EQ(semctl(std::atoi(text_of(at("second")).c_str()), 0, GETVAL), -1);
    std::ofstream(at("gate")) << "go\n";
    finish(first);
    EXPECT_EQ(semctl(id, 0, GETVAL), -1);
}

TEST_F(HostsimRun, ListsTheProcessesThatHaveTheLibrary) {
    const std::string count = "lsof 2> /dev/null | grep libtrelm | wc -l";
    const std::string with_library = "LD_PRELOAD=$LD_PRELOAD:" + kLibrary + " ";
    const Outcome outcome = run(
        count + "; for i in 1 2 3; do " + with_library + "sleep 1000 & p=\"$p $!\"; done; " +
        "for i in $(seq 500); do test $(" + count + ") = 6 && break; sleep 0.02; done; " + count +
        "; PATH=/usr/bin:/bin perl -e 'print `true`; exec @ARGV' sh -c 'lsof | head -1'; kill $p; wait; " +
        count);
    EXPECT_THAT(outcome.out, StartsWith("0\n6\n")) << outcome.errors;
    EXPECT_THAT(outcome.out, testing::EndsWith("\n0\n"));
}

// ---- Host files
// --------------------------------------------------------------------------------------------------------

TEST_F(HostsimRun, WritesAHostFileThatIsSound) {
    EXPECT_EQ(launch({"new", at("new.json")}).status, 0);
    const Outcome sound = launch({"check", at("new.json")});
    EXPECT_EQ(sound.status, 0) << sound.errors;
    EXPECT_THAT(sound.out, StartsWith("sound: " + at("new.json").string()));
    EXPECT_EQ(launch({"new"}).out, text_of(at("new.json")));

    write("mine.json", "mine");
    const Outcome refused = launch({"new", at("mine.json")});
    EXPECT_EQ(refused.status, 1);
    EXPECT_THAT(refused.errors, HasSubstr(at("mine.json").string()));
    EXPECT_EQ(text_of(at("mine.json")), "mine");

    const Outcome mixed = launch({"check", at("new.json"), at("mine.json"), at("absent.json")});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_THAT(mixed.out, HasSubstr("sound: "));
    EXPECT_THAT(mixed.errors,
                testing::AllOf(HasSubstr(at("mine.json").string() + ":1:"), HasSubstr("absent.json")));
}

TEST_F(HostsimRun, RefusesWrongUsage) {
    for (const std::vector<std::string>& usage : std::vector<std::vector<std::string>>{
             {}, {"run"}, {"run", at("host.json")}, {"check"}, {"frobnicate"}, {"run", "--no-such-option"}}) {
        const Outcome outcome = launch(usage);
        EXPECT_EQ(outcome.status, 2) << testing::PrintToString(usage);
        EXPECT_THAT(outcome.errors, Not(IsEmpty()));
    }
    EXPECT_EQ(launch({"--help"}).status, 0);
    EXPECT_THAT(launch({"--version"}).out, StartsWith("trelm-hostsim "));
}

}  // namespace
