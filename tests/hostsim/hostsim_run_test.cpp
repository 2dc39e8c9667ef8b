// hostsim_run_test.cpp - programs on a simulated host: how the launcher runs a command, and which answers of
// libc are those of the host. Each test has its own directory, which is removed at its end.
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
    // Runs a shell script on the host of host.json. D is the directory of the test.
    Words script(const std::string& text, const Words& options = {}) const {
        return Words{kLauncher, "run", at("host.json")} + options +
               Words{"--", "sh", "-c", "D=" + at("") + "; " + text};
    }
    ProgramResult run(const std::string& text, const Words& options = {}) const {
        return execute(script(text, options));
    }
    ProgramResult launch(const Words& arguments) const { return execute(Words{kLauncher} + arguments); }
    // Continues the script that waits in `read line < $D/gate`.
    void open_gate() const { std::ofstream(at("gate")) << "go\n"; }
    bool appears(const std::string& name) const {
        return eventually([&] { return fs::exists(at(name)); });
    }
    const Words root_option{"--root", at("root")};
};

TEST_F(HostsimRun, ReturnsTheStatusOfTheCommandOrSaysWhyItDidNotStart) {
    EXPECT_EQ(run("exit 42").status, 42);
    EXPECT_EQ(run("kill -KILL $$").status, 128 + SIGKILL);
    const ProgramResult missing = launch({"run", at("host.json"), "--", "no-such-program"});
    EXPECT_EQ(missing.status, 127);
    EXPECT_THAT(missing.errors, HasSubstr("no-such-program"));
    const pid_t launcher =
        start(script("trap 'exit 7' TERM; : > $D/ready; for i in $(seq 999); do sleep 0.05; done"));
    ASSERT_TRUE(appears("ready"));
    kill(launcher, SIGTERM);
    EXPECT_EQ(finish(launcher).status, 7) << "signals are forwarded";

    write("host.json", "{\"adapters\": [],\n \"no_such_key\": 1}");
    const ProgramResult mistaken = run("touch $D/started", root_option);
    EXPECT_EQ(mistaken.status, 125);
    EXPECT_THAT(mistaken.errors, AllOf(HasSubstr(at("host.json")), HasSubstr("no_such_key")));
    EXPECT_FALSE(fs::exists(at("started")) || fs::exists(at("root")));
    for (const char* usage : {"", "check", "frobnicate", "clean x", "new a b"})
        EXPECT_EQ(launch(words_of(usage)).status, 2) << usage;
    for (const char* usage : {"run", "run host.json", "run --no-such-option", "run host.json --root= -- x"})
        EXPECT_EQ(launch(words_of(usage)).status, 125) << usage;
}

TEST_F(HostsimRun, RefusesProgramsThatItCannotReach) {
    std::string program = text_of("/usr/bin/env");
    for (size_t at = 64; at < 64 + 56 * 16; at += 56)  // PT_INTERP becomes PT_NULL
        if (program.substr(at, 4) == std::string("\3\0\0\0", 4)) program[at] = 0;
    write("static", program);
    write("script", "#! " + at("static") + " -x\n");
    fs::copy_file("/usr/bin/env", at("setuid"));
    for (const char* name : {"static", "script", "setuid"}) chmod(at(name).c_str(), 0755);
    const bool is_owner =
        chown(at("setuid").c_str(), 65534, 65534) == 0 && chmod(at("setuid").c_str(), 04755) == 0;
    const std::string setuid = is_owner ? at("setuid") : "/bin/su";
    for (const auto& [command, reason] : std::vector<std::pair<std::string, std::string>>{
             {at("static"), at("static") + " is statically linked"},
             {at("script"), at("static") + " is statically linked"},
             {setuid, "rights of another user"}}) {
        const ProgramResult refused = launch({"run", at("host.json"), "--", command, "--version"});
        EXPECT_EQ(refused.status, 126) << command;
        EXPECT_THAT(refused.errors, AllOf(HasSubstr(command + ": "), HasSubstr(reason)));
    }
    const ProgramResult forced = launch({"run", "--force", at("host.json"), "--", setuid, "--version"});
    EXPECT_EQ(forced.status, 0) << forced.errors;
    write("text", "not executable");
    EXPECT_EQ(launch({"run", at("host.json"), "--", at("text")}).status, 126);
}

TEST_F(HostsimRun, WorksFromAPathWithASpaceAndAColon) {
    const fs::path moved = at("a place: mine");
    for (const std::string file : {"bin/trelm-hostsim", "lib/libtrelm-hostsim.so"}) {
        fs::create_directories((moved / file).parent_path());
        fs::copy_file(fs::path(binary_dir()) / file, moved / file);
    }
    write("a place: mine/bin/beside", "#!/bin/sh\nuname; env -i /bin/uname -n");
    chmod((moved / "bin/beside").c_str(), 0755);
    const ProgramResult outcome =
        execute({moved / "bin/trelm-hostsim", "run", at("host.json"), "--", "beside"});
    EXPECT_EQ(outcome.out, "VMkernel\nesx-run\n") << outcome.errors;
}

#ifndef __SANITIZE_ADDRESS__  // the leak check of the sanitizer needs /proc
TEST_F(HostsimRun, SaysWhatItMissesWhereThereIsNoProc) {
    if (execute({"/usr/bin/unshare", "-m", "umount", "-l", "/proc"}).status != 0)
        GTEST_SKIP() << "this user may not unmount /proc";
    const ProgramResult outcome = execute({"/usr/bin/unshare", "-m", "sh", "-c", "umount -l /proc; \"$@\"",
                                           "sh", kLauncher, "run", at("host.json"), "--", "true"});
    EXPECT_EQ(outcome.status, 125);
    EXPECT_THAT(outcome.errors, HasSubstr("/proc is missing"));
}
#endif

TEST_F(HostsimRun, TellsOnceWhenAnEditBreaksTheFileAndOnceWhenItIsSoundAgain) {
    const std::string sound = text_of(at("host.json"));
    const pid_t launcher = start(script(": > $D/ready; read line < $D/gate; uname -n"));
    ASSERT_TRUE(appears("ready"));
    const auto told = [&](const std::string& text) {
        return eventually([&] { return text_of(at("errors")).find(text) != std::string::npos; });
    };
    write("host.json", "{\"adapters\": [],\n no}");
    EXPECT_TRUE(told(at("host.json") + ":2:"));
    write("host.json", "broken, too");
    std::this_thread::sleep_for(std::chrono::seconds(1));
    write("host.json", sound);
    EXPECT_TRUE(told(at("host.json") + ": sound again"));
    open_gate();
    const ProgramResult outcome = finish(launcher);
    EXPECT_EQ(outcome.out, "esx-run\n");
    EXPECT_EQ(std::ranges::count(outcome.errors, '\n'), 3) << outcome.errors;
    EXPECT_THAT(run("echo broken > $D/host.json").errors, HasSubstr(at("host.json") + ":1:"));
}

TEST_F(HostsimRun, KeepsTheHostUntilTheLastChildHasEnded) {
    const ProgramResult outcome =
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

// Each call starts uname. Calls that take an environment get one without the host's variables.
TEST_F(HostsimRun, KeepsProgramsOnTheHostWhicheverCallStartsThem) {
    write("start.py", R"(
import ctypes, os
libc = ctypes.CDLL(None)
path, words, none = b"/bin/uname", [b"uname", b"-n"], ctypes.c_void_p(None)
array = (ctypes.c_char_p * 3)(*words)
other_preload = {"LD_PRELOAD": "libm.so.6"}
starts = [
    lambda: os.execve(path, words, {}), lambda: os.execve(path, words, other_preload),
    lambda: os.execve(os.open(path, os.O_RDONLY), words, {}),
    lambda: libc.execv(path, array), lambda: libc.execvp(b"uname", array), lambda: libc.execvpe(b"uname", array, none),
    lambda: libc.execveat(-1, path, array, none, 0),
    lambda: libc.execl(path, *words, none), lambda: libc.execlp(b"uname", *words, none),
    lambda: libc.execle(path, *words, none, (ctypes.c_char_p * 1)(None))]
for number, start in enumerate(starts):
    child = os.fork()
    if not child:
        libc.clearenv()
        start()
        os._exit(99)
    assert os.waitpid(child, 0)[1] == 0, number
for spawn, name in (os.posix_spawn, path), (os.posix_spawnp, b"uname"):
    assert os.waitpid(spawn(name, words, {}), 0)[1] == 0, name
)");
    const ProgramResult outcome = run("exec /usr/bin/python3 $D/start.py");
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(words_of(outcome.out), Words(12, "esx-run"));
}

TEST_F(HostsimRun, LetsLibrariesAndModulesBeFoundBelowTheMachinesTmp) {
    const fs::path modules = fs::path(at("x")).parent_path().string() + "-modules";
    fs::create_directory(modules);
    std::ofstream(modules / "module.py") << "";
    for (const char* list : {"LD_LIBRARY_PATH", "PYTHONPATH"}) {
        EXPECT_NE(run("test -e " + modules.string() + "/module.py").status, 0) << "before " << list;
        ::setenv(list, ("/nowhere:" + modules.string()).c_str(), 1);
        EXPECT_EQ(run("test -e " + modules.string() + "/module.py").status, 0) << list;
        ::unsetenv(list);
    }
    fs::remove_all(modules);
}

TEST_F(HostsimRun, KeepsARootThatWasGivenAndSharesItAmongCommandsOfOneHostOnly) {
    const pid_t first =
        start(script(": > /tmp/ready; read line < $D/gate; cat /tmp/second", root_option), at("first"));
    ASSERT_TRUE(appears("root/tmp/ready"));
    EXPECT_EQ(run("test -e /tmp/ready && echo hello > /tmp/second; : > /var/tmp/log", root_option).status, 0);
    const ProgramResult refused = launch(Words{"run", at("next.json")} + root_option + Words{"--", "true"});
    EXPECT_EQ(refused.status, 125);
    EXPECT_THAT(refused.errors, HasSubstr(at("host.json")));
    EXPECT_TRUE(fs::exists(at("root/.hostsim/state"))) << "the first command still runs";
    open_gate();
    EXPECT_EQ(finish(first).status, 0);
    EXPECT_EQ(text_of(at("first")), "hello\n");
    EXPECT_FALSE(fs::exists(at("root/.hostsim/state")));
    EXPECT_EQ(run("cat /tmp/second; ls /var/tmp", root_option).out, "hello\nlog\n");
}

TEST_F(HostsimRun, KeepsSemaphoresApartAndRemovesThem) {
    // IPC_CREAT 01000, IPC_EXCL 02000: each host creates its own set.
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
    const ProgramResult sound = launch({"check", at("new.json")});
    EXPECT_EQ(sound.status, 0) << sound.errors;
    EXPECT_THAT(sound.out, StartsWith("sound: " + at("new.json")));
    write("odd.json", R"({"adapters": [], "name": "a\u001b[1mb",
                         "faults": [{"operation": "init", "status": 1}]})");
    const std::string warning = "trelm-hostsim: warning: " + at("odd.json") + ":2:51: /faults/0/operation: ";
    const ProgramResult usable = launch({"check", at("odd.json")});
    EXPECT_EQ(usable.status, 0);
    EXPECT_THAT(usable.errors, StartsWith(warning));
    EXPECT_THAT(usable.out, AllOf(StartsWith("usable: " + at("odd.json")), HasSubstr("\"a\\x1b[1mb\"")));
    EXPECT_THAT(launch({"run", at("odd.json"), "--", "true"}).errors, StartsWith(warning));
    const ProgramResult mixed = launch({"check", at("mine.json"), at("absent.json")});
    EXPECT_EQ(mixed.status, 1);
    EXPECT_THAT(mixed.errors, AllOf(HasSubstr(at("mine.json") + ":1:"), HasSubstr("absent.json")));
}

}  // namespace
