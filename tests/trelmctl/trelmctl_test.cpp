// trelmctl_test.cpp - the tool with standard streams that are closed, full, without a reader, or a terminal.
// golden_test.cpp tests its output in all other cases.
#include <fcntl.h>
#include <poll.h>
#include <pty.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>
#include <optional>

#include "support/child.h"
#include "support/programs.h"

namespace {

using namespace trelm::test;

const std::string kTool = binary_dir() + "/bin/trelmctl";
const std::string kLab = source_dir() + "/hostsim/hosts/lab.json";

class Trelmctl : public Programs {
  protected:
    void expect(const std::string& script, int status, const std::string& errors) const {
        const ProgramResult outcome = execute(
            {kLauncher, "run", kLab, "--", "/bin/sh", "-c", "cd /tmp; tool=$0; IFS=; " + script, kTool});
        EXPECT_EQ(outcome.status, status) << script;
        EXPECT_EQ(outcome.errors, errors) << script;
    }
    static std::string cannot_write(const std::string& why) {
        return "trelmctl: standard output cannot be written: " + why + "; what was printed is incomplete\n";
    }
};

TEST_F(Trelmctl, EndsWithADocumentedStatusWhateverItsStandardStreamsAre) {
    expect("$tool list --json >/dev/full", 1, cannot_write("No space left on device"));
    expect("$tool --help >/dev/full", 1, cannot_write("No space left on device"));
    expect("$tool list >&- 2>&-", 1, "");
    expect("$tool show 2>/dev/full", 2, "");
    expect("$tool show 2>&-", 2, "");
    expect("mkfifo pipe; exec 3<>pipe 4>pipe 3<&-; $tool tree >&4", 1, "");
    // The tool's text must not go to the next file that the library opens, which gets the closed descriptor.
    expect("$tool tree <&- >&-", 1, cannot_write("Bad file descriptor"));
    expect("$tool tree <&- >&- 2>&-", 1, "");
}

// A program on its own terminal.
class Terminal {
  public:
    Terminal(Words words, uint16_t columns, uint16_t lines) {
        winsize size{lines, columns, 0, 0};
        child_ = forkpty(&fd_, nullptr, nullptr, &size);
        if (child_ != 0) return;
        std::vector<char*> arguments;
        for (std::string& word : words) arguments.push_back(word.data());
        arguments.push_back(nullptr);
        execv(arguments[0], arguments.data());
        _exit(99);
    }
    ~Terminal() { close(fd_); }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    void resize(uint16_t columns, uint16_t lines) const {
        winsize size{lines, columns, 0, 0};
        ioctl(fd_, TIOCSWINSZ, &size);
    }
    // The lines of the next complete screen: from the first line to the sequence that clears the rest.
    std::vector<std::string> screen() {
        const std::string start = "\033[H";
        const std::string end = "\033[J";
        while (true) {
            const std::size_t from = seen_.find(start);
            const std::size_t to = seen_.find(end, from == std::string::npos ? 0 : from);
            if (from != std::string::npos && to != std::string::npos) {
                const std::string whole = seen_.substr(from + start.size(), to - from - start.size());
                seen_.erase(0, to + end.size());
                return lines_of(whole);
            }
            if (!read_more()) return {};
        }
    }
    void type(const std::string& keys) const {
        EXPECT_EQ(write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }
    // Waits for the text on the terminal. Output before it is dropped.
    bool shows(const std::string& text) { return before(text).has_value(); }
    // The whole screen, redrawn until the text is on it.
    std::string screen_with(const std::string& text) {
        std::string screen;
        const bool found = eventually([&] {
            type("\f");
            shows("\033[H\033[2J");
            screen = before("q quit").value_or("");
            return screen.find(text) != std::string::npos;
        });
        EXPECT_TRUE(found) << text << " is not on\n" << screen;
        return screen;
    }
    // The exit status, after the program has ended by itself.
    int finish() {
        while (read_more()) {
        }
        int status = 0;
        waitpid(child_, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Closes the terminal's window.
    bool ends_when_hung_up() {
        close(std::exchange(fd_, -1));
        return eventually([&] { return waitpid(child_, nullptr, WNOHANG) == child_; });
    }

  private:
    static std::vector<std::string> lines_of(const std::string& text) {
        std::vector<std::string> lines;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line.substr(0, line.find("\033[K")));
        return lines;
    }
    std::optional<std::string> before(const std::string& text) {
        while (seen_.find(text) == std::string::npos) {
            if (!read_more()) return std::nullopt;
        }
        std::string found = seen_.substr(0, seen_.find(text));
        seen_.erase(0, found.size() + text.size());
        return found;
    }
    bool read_more() {
        pollfd waiting{fd_, POLLIN, 0};
        char piece[4096];
        const ssize_t got = poll(&waiting, 1, 30000) == 1 ? read(fd_, piece, sizeof piece) : -1;
        if (got > 0) seen_.append(piece, static_cast<std::size_t>(got));
        return got > 0;
    }

    int fd_ = -1;
    pid_t child_ = -1;
    std::string seen_;
};

std::size_t width_of(const std::vector<std::string>& lines) {
    std::size_t width = 0;
    for (const std::string& line : lines) width = std::max(width, line.size());
    return width;
}

TEST_F(Trelmctl, WatchFillsATerminalFollowsItsSizeAndEndsOnAnInterrupt) {
    Terminal terminal({kLauncher, "run", kLab, "--", kTool, "stats", "1", "--watch", "0.1"}, 80, 24);
    std::vector<std::string> screen = terminal.screen();
    ASSERT_EQ(screen.size(), 24u);
    EXPECT_LE(width_of(screen), 80u);
    EXPECT_EQ(screen[0].substr(0, 19), "Port 1/0, every 0.1");
    EXPECT_EQ(screen[1], "COUNTER                                        TOTAL      PER SECOND");
    terminal.resize(40, 10);
    while (terminal.screen().size() > 10) {
    }
    screen = terminal.screen();
    EXPECT_EQ(screen.size(), 10u);
    EXPECT_EQ(width_of(screen), 40u);
    terminal.type("\003");
    EXPECT_EQ(terminal.finish(), 0);
}

TEST_F(Trelmctl, RequestsTakeThePlaceOfTheLineThatSaysWhatIsWaitedFor) {
    Terminal terminal({kLauncher, "run", kLab, "--", kTool, "-v", "luns", "1", "0"}, 40, 24);
    EXPECT_TRUE(terminal.shows("target 0: listing its LUNs"));
    EXPECT_TRUE(terminal.shows("\r\033[Ktrelmctl: > port 1/0: TRELM_GetLunInfo\r\n    target 0"));
    EXPECT_EQ(terminal.finish(), 0);
}

TEST_F(Trelmctl, TopShowsPortsTakesKeysAndLeavesTheTerminalAsItWas) {
    const Words top{"/usr/bin/env", "TERM=xterm", kLauncher, "run",     kLab,
                    "--",           kTool,        "top",     "--every", "0.1"};
    const std::string leaves_the_screen = "\033[?1049l";
    {
        Terminal terminal(top, 80, 24);
        EXPECT_TRUE(terminal.shows("vmhba32   online"));
        terminal.type("s");
        EXPECT_TRUE(terminal.shows("traffic"));
        terminal.type("\n");
        EXPECT_TRUE(terminal.shows("target")) << "the page of a port";
        EXPECT_TRUE(terminal.shows("FCoE frames received"));
        terminal.type("\033[6~\033[6~");
        EXPECT_TRUE(terminal.shows("recoveries")) << "the last counter, below";
        terminal.type("\033");
        EXPECT_TRUE(terminal.shows("sort by: traffic"));
        terminal.resize(60, 12);
        EXPECT_THAT(terminal.screen_with("PORT"), testing::Not(testing::HasSubstr("ERROR/S")));
        terminal.type("q");
        EXPECT_TRUE(terminal.shows(leaves_the_screen));
        EXPECT_EQ(terminal.finish(), 0);
    }
    for (const char* key : {"\003", "\034"}) {  // interrupt, quit
        Terminal interrupted(top, 80, 24);
        EXPECT_TRUE(interrupted.shows("vmhba32"));
        interrupted.type(key);
        EXPECT_TRUE(interrupted.shows(leaves_the_screen));
        EXPECT_EQ(interrupted.finish(), 0);
    }
    Terminal closed(top, 80, 24);
    EXPECT_TRUE(closed.shows("vmhba32"));
    EXPECT_TRUE(closed.ends_when_hung_up());
}

// A host whose file a test edits while programs run on it.
class TrelmctlTop : public Trelmctl {
  protected:
    using Json = nlohmann::json;

    // A path in LD_PRELOAD cannot contain a space, but the path of the build tree may.
    TrelmctlTop() {
        put(host_);
        std::filesystem::create_symlink(binary_dir() + "/lib/libslow_driver.so", at("slow_driver"));
    }
    void put(const Json& host) const {
        write("new", host.dump());
        std::filesystem::rename(at("new"), at("host.json"));
    }
    void put_with_fault(Json fault) const {
        fault.update({{"count", "always"}, {"errno", "EIO"}});
        Json host = host_;
        host["faults"] = Json::array({fault});
        put(host);
    }
    // Runs a shell script on the host, with $tool for the tool. A port hangs while there is a file
    // "hang-HOSTNUMBER".
    Words shell(const std::string& script) const {
        const std::string prelude =
            "cd $0; tool=$1; IFS=; export TERM=xterm SLOW_DRIVER=$0 "
            "LD_PRELOAD=\"$0/slow_driver:$LD_PRELOAD\" "
            "ASAN_OPTIONS=\"$ASAN_OPTIONS:verify_asan_link_order=0\"; ";
        return {kLauncher, "run", at("host.json"), "--", "/bin/sh", "-c", prelude + script, at(""), kTool};
    }

    Json host_ = Json::parse(text_of(kLab), nullptr, true, true);
};

TEST_F(TrelmctlTop, KeepsToItsPortWhileOthersComeAndGoAndSamplesFail) {
    Terminal terminal(shell("exec $tool top --every 0.1 --rescan 0.3"), 80, 24);
    terminal.screen_with("6 ports");
    terminal.type("jj\n");
    terminal.screen_with("Port 1  vmhba32  online");
    Json fewer = host_;
    fewer["adapters"].erase(1);
    fewer["adapters"][0]["ports"][0].erase("virtual_ports");
    put(fewer);
    terminal.screen_with("Port 0  vmhba32  online");
    terminal.type("\033");
    EXPECT_THAT(terminal.screen_with("2 ports"), testing::Not(testing::HasSubstr("vmhba36")));
    put_with_fault({{"operation", "port_stats"}, {"port", "kron-b"}});
    terminal.screen_with("\033[31m2      vmhba35   online");
    put_with_fault({{"operation", "scsi"}, {"port", "kron-b"}});
    terminal.type("jjj\n");
    terminal.screen_with("online  no answer  50:00:02:ca:5d:00:00:11");
    put_with_fault({{"operation", "port_info"}, {"port", "kron-b"}});
    terminal.screen_with("the driver failed the request without a known status");
    put_with_fault({{"operation", "init"}});
    terminal.type("\033");
    terminal.screen_with("the library cannot be loaded");
    put(host_);
    terminal.screen_with("6 ports");
    terminal.type("q");
    EXPECT_EQ(terminal.finish(), 0);
}

TEST_F(TrelmctlTop, FitsAPageToTheTerminalAndAsksNothingForAKey) {
    Terminal terminal(shell("exec $tool -v top --every 1000 2>log"), 40, 12);
    terminal.screen_with("vmhba35");
    terminal.type("jj\n");
    terminal.screen_with("2 LUNs");
    const std::string asked = text_of(at("log"));
    terminal.type("xxxxx\033[6~\033[6~\033[6~\033[6~\033[6~\033[6~\033[6~");
    EXPECT_THAT(terminal.screen_with("Session-level recover>"), testing::HasSubstr("0.0/s"));
    EXPECT_EQ(text_of(at("log")), asked);
    terminal.type("j");
    terminal.screen_with("Port 1/1");
    terminal.type("q");
    EXPECT_EQ(terminal.finish(), 0);
    EXPECT_EQ(Terminal(shell("exec $tool -v top"), 80, 24).finish(), 2) << "requests would garble the screen";
}

TEST_F(TrelmctlTop, EndsInOrderWhileADriverHangs) {
    for (const char* key : {"q", "\003"}) {
        Terminal terminal(shell("exec $tool top --every 0.1"), 80, 24);
        terminal.screen_with("6 ports");
        write("hang-32", "");
        terminal.screen_with("vmhba32   no answer");
        EXPECT_THAT(terminal.screen_with("vmhba35   online"), testing::HasSubstr("vmhba36   online"));
        terminal.type(key);
        EXPECT_TRUE(terminal.shows("\033[?1049l"));
        EXPECT_EQ(terminal.finish(), 0);
        std::filesystem::remove(at("hang-32"));
    }
}

TEST_F(TrelmctlTop, MonitorTellsOfADriverThatHangsAndOfOtherPorts) {
    const std::string script =
        "seen() { i=0; while [ $((i += 1)) -le 300 ]; do grep -qs \"$1\" log && return; sleep 0.1; done; "
        "echo no $1; };"
        "touch hang-0; $tool monitor --every 0.1 >log 2>&1 & seen 'do not list'; rm hang-0; seen watching; "
        "touch hang-32; seen 'port 1: state online .> no "
        "answer';"
        "sed 's/50:00:02:ca:5d:00:00:13/50:00:02:ca:5d:00:00:77/' host.json >new; mv new host.json;"
        "seen '00:77 at port 0: appeared'; kill $!; wait $!";
    const ProgramResult outcome = execute(shell(script));
    EXPECT_EQ(outcome.out + outcome.errors, "");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(text_of(at("log")), testing::Not(testing::HasSubstr("port 1: gone")));
}

}  // namespace
