// hostsim_run_test.cpp - programs on a simulated host: how the launcher runs a command, and which answers of
// libc are those of the host. Each test has its own directory, which is removed at its end.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <sys/sem.h>

#include "root_layout.h"
#include "support/child.h"
#include "support/programs.h"

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using namespace trelm::test;

const fs::path kGolden = source_dir() + "/tests/hostsim/golden";

// Each file in golden/ is a story: command lines, which run one after the other in one directory, with their
// output, standard error behind it, and their exit status. The path of the directory is shown as HERE.
class Golden : public Programs, public testing::WithParamInterface<std::string> {};

TEST_P(Golden, CommandsPrintAndLeaveWhatTheFileHolds) {
    const fs::path file = kGolden / (GetParam() + ".txt"), here = fs::path(at("x")).parent_path();
    const std::string preparation = fmt::format(
        "cd '{}'; umask 022; export LC_ALL=C.UTF-8 TMPDIR=$PWD/temporary HOSTS='{}/hostsim/hosts' "
        "PATH='{}/bin':/usr/bin:/bin; ",
        here.string(), source_dir(), binary_dir());
    fs::create_directory(at("temporary"));
    expect_told_commands(file, [&](const std::string& line) {
        const ProgramResult outcome = execute({"/bin/sh", "-c", preparation + line.substr(2)});
        const std::string told = outcome.out + outcome.errors;
        return fmt::format("{}\n{}=> {}\n", line, Pattern(here).replaced_in(told, "HERE"), outcome.status);
    });
}

INSTANTIATE_TEST_SUITE_P(Hostsim, Golden, testing::ValuesIn(golden_names(kGolden)),
                         [](const auto& name) { return name.param; });

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

TEST_F(HostsimRun, ForwardsSignals) {
    const pid_t launcher =
        start(script("trap 'exit 7' TERM; : > $D/ready; for i in $(seq 999); do sleep 0.05; done"));
    ASSERT_TRUE(appears("ready"));
    kill(launcher, SIGTERM);
    EXPECT_EQ(finish(launcher).status, 7);
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
}

#ifndef TRELM_SANITIZED_ADDRESS  // it needs /proc itself
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

TEST_F(HostsimRun, KeepsARootThatWasGivenAndSharesItAmongCommandsOfOneHostOnly) {
    const pid_t first =
        start(script(": > /tmp/ready; read line < $D/gate; cat /tmp/second", root_option), at("first"));
    ASSERT_TRUE(appears("root/tmp/ready"));
    EXPECT_EQ(run("test -e /tmp/ready && echo hello > /tmp/second; : > /var/tmp/log", root_option).status, 0);
    const ProgramResult refused = launch(Words{"run", at("next.json")} + root_option + Words{"--", "true"});
    EXPECT_EQ(refused.status, 125);
    EXPECT_THAT(refused.errors, HasSubstr(at("host.json")));
    EXPECT_TRUE(fs::exists(at("root") + hostsim::layout::kState)) << "the first command still runs";
    open_gate();
    EXPECT_EQ(finish(first).status, 0);
    EXPECT_EQ(text_of(at("first")), "hello\n");
    EXPECT_FALSE(fs::exists(at("root") + hostsim::layout::kState));
    EXPECT_EQ(run("cat /tmp/second; cd /var/tmp; ls log", root_option).out, "hello\nlog\n");
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

}  // namespace
