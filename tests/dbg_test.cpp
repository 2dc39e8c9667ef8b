// dbg_test.cpp - the debug log: what is written, in which form, where to, and by how many at once.
#include "trelm_dbg.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>

#include "host.h"
#include "hosts.h"
#include "support/child.h"
#include "support/failing_allocation.h"
#include "support/log_capture.h"
#include "trelm_core.h"

namespace {
time_t fixed_time = 0;  // what time it is, where a test says so
}

extern "C" [[gnu::visibility("default")]] time_t time(time_t* out) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t told = fixed_time ? fixed_time : now.tv_sec;
    if (out) *out = told;
    return told;
}

namespace {

using namespace trelm::test;
using ::testing::ElementsAre;
using ::testing::MatchesRegex;

constexpr char kLogFile[] = "/var/tmp/libtrelm.log";  // of the simulated host
constexpr char kStamped[] = "[A-Z][a-z][a-z] [0-9][0-9] [0-9][0-9]:[0-9][0-9]:[0-9][0-9]: ";

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void print_line(const char* text) { trelm_dbg_print(nullptr, text, 0, 0, 1); }

// Every test logs on a host of its own.
class Log : public ::testing::Test {
  protected:
    Log() {
        trelmlog_path[0] = 0;
        trelm_dbg_sem_id = -1;
    }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kSilent};
};

TEST_F(Log, WritesNumbersUnsignedAndHexadecimalOnesAboveNineWithAnH) {
    set_debug_flags(kAllLines);
    struct {
        uint64_t number;
        uint8_t radix;
        const char* expected;
    } const cases[] = {
        {0, 10, "n=0"},       {0, 16, "n=0"},
        {9, 16, "n=9"},       {10, 16, "n=Ah"},
        {255, 16, "n=FFh"},   {255, 10, "n=255"},
        {16, 16, "n=10h"},    {UINT64_MAX, 10, "n=18446744073709551615"},
        {7, 0, "n="},         {UINT64_MAX, 16, "n=FFFFFFFFFFFFFFFFh"},
        {1000, 10, "n=1000"}, {0x0123456789ABCDEF, 16, "n=123456789ABCDEFh"},
    };
    for (const auto& [number, radix, expected] : cases) {
        trelm_dbg_print(nullptr, "n=", number, radix, 1);
        EXPECT_THAT(log.take(), ElementsAre(expected));
    }
    // A line may come in several calls.
    trelm_dbg_print("func", "(", 3, 10, 0);
    trelm_dbg_print(nullptr, ") %s%n", 0, 0, 2);  // only 1 ends a line
    EXPECT_EQ(log.take_text(), "");
    trelm_dbg_print(nullptr, ": x=", 12, 16, 1);
    EXPECT_EQ(log.take_text(), "func(3) %s%n: x=Ch\n");
}

TEST_F(Log, LetsALongLineGoInPiecesOf251Characters) {
    set_debug_flags(kErrorLines);
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
    const int captured = dup(2);
    dup2(ends[1], 2);
    struct {
        size_t length;
        std::vector<ssize_t> pieces;
    } const cases[] = {{249, {250}}, {250, {251}}, {251, {251, 1}}, {300, {251, 50}}, {600, {251, 251, 99}}};
    for (const auto& c : cases) {
        std::string text;
        for (size_t i = 0; i < c.length; ++i) text += static_cast<char>('a' + i % 26);
        print_line(text.c_str());
        std::vector<ssize_t> pieces;
        std::string whole;
        char piece[1024];
        for (ssize_t got; (got = recv(ends[0], piece, sizeof piece, 0)) > 0; pieces.push_back(got))
            whole.append(piece, static_cast<size_t>(got));
        EXPECT_EQ(pieces, c.pieces);
        EXPECT_EQ(whole, text + "\n");
    }
    dup2(captured, 2);
    for (int fd : {captured, ends[0], ends[1]}) close(fd);
}

TEST_F(Log, TakesItsFlagsFromTheEnvironmentAndMakesASemaphoreWhenFirstOn) {
    struct {
        const char* value;  // null: not set
        uint32_t flags;
        bool has_semaphore;
    } const cases[] = {
        {nullptr, 0, false}, {"0", 0, false},  {"junk", 0, false}, {"100000000", 0, false}, {"6", 6, true},
        {nullptr, 6, true},  {"0x4", 4, true}, {"1F", 0x1F, true}, {"100000007", 7, true},  {"0", 0, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value ? c.value : "not set");
        c.value ? setenv("TRELM_API_DEBUG", c.value, 1) : unsetenv("TRELM_API_DEBUG");
        trelm_set_debug_level();
        EXPECT_EQ(trelm_debug, c.flags);
        const int set = semget(883, 0, 0);
        EXPECT_EQ(set >= 0, c.has_semaphore);
        EXPECT_EQ(trelm_dbg_sem_id, set);
    }
    EXPECT_EQ(semctl(trelm_dbg_sem_id, 0, GETVAL), 1);
    print_line("off");
    EXPECT_EQ(log.take_text(), "");
}

TEST_F(Log, StampsLinesOfTheFileWithTheLocalTimeAndAppendsThem) {
    set_debug_flags(6);
    print_line("not there");
    EXPECT_FALSE(std::filesystem::exists(kLogFile));
    std::ofstream(kLogFile) << "older\n";
    tm local{0, 0, 2, 5, 10, 119, 0, 0, -1, 0, nullptr};
    fixed_time = mktime(&local);
    memset(trelmlog_path, 0x7F, sizeof trelmlog_path);
    trelmlog_path[0] = 0;
    set_debug_flags(1);  // lines reach the file and the terminal without any category
    print_line("x");
    trelm_dbg_print("func", "(", 1, 10, 0);
    print_line("): entered.");
    EXPECT_EQ(trelmdbg_fp, nullptr);
    EXPECT_STREQ(trelmlog_path, kLogFile);
    EXPECT_EQ(trelmlog_path[255], 0);
    EXPECT_EQ(trelmlog_path[256], 0x7F);
    const uint8_t byte = 5;
    trelm_dbg_dump("title", &byte, 8, 0);
    EXPECT_NE(trelmdbg_fp, nullptr);  // open from a dump to the next line
    print_line(std::string(300, 'y').c_str());
    EXPECT_EQ(trelmdbg_fp, nullptr);
    fixed_time = INT64_MAX;  // no year that can be told: the line is dropped, and the semaphore is not kept
    print_line("lost");
    EXPECT_EQ(semctl(trelm_dbg_sem_id, 0, GETVAL), 1);
    const std::vector<std::string> file = split_lines(contents(kLogFile)), seen = log.take();
    ASSERT_EQ(file.size(), 8U);
    ASSERT_EQ(seen.size(), 8U);
    EXPECT_EQ(file[1], "Nov 05 02:00:00: x");
    EXPECT_EQ(file[2], "Nov 05 02:00:00: func(1): entered.");
    EXPECT_EQ(file[3], "title");
    EXPECT_EQ(file[7], "Nov 05 02:00:00: " + std::string(300, 'y'));
    EXPECT_EQ(seen[2], "func(1): entered.");
    EXPECT_EQ(seen[7], std::string(300, 'y'));

    strcpy(trelmlog_path, "/tmp/own.log");  // as a host program may
    FILE* const stream = trelm_dbg_get_fptr();
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(trelm_dbg_get_fptr(), stream);
    fixed_time = 1;
    print_line("here");
    EXPECT_THAT(contents("/tmp/own.log"), MatchesRegex(std::string(kStamped) + "here\n"));
}

TEST_F(Log, GoesOnWithoutFileSemaphoreOrMemoryAndLeavesErrnoAlone) {
    EXPECT_EQ(trelm_dbg_get_fptr(), nullptr);  // off, and no path
    set_debug_flags(7);
    strcpy(trelmlog_path, "/var/tmp/none/x.log");
    semctl(trelm_dbg_sem_id, 0, IPC_RMID);
    errno = 77;
    print_line("removed");
    trelm_dbg_dump("dump", nullptr, 12, 0);
    trelm_dbg_sem_id = -1;
    print_line("none");
    {
        FailingAllocation fail;
        print_line("dropped");
    }
    EXPECT_EQ(errno, 77);
    EXPECT_THAT(log.take(), ElementsAre("removed", "dump", "none"));
}

TEST_F(Log, WritesIntoNothingButARegularFileAndStillReachesTheTerminal) {
    set_debug_flags(7);
    const std::map<std::string, int (*)()> obstacles = {
        {"directory", [] { return mkdir(kLogFile, 0755); }},
        {"link to a file", [] { return symlink("/tmp/victim", kLogFile); }},
        {"link to nothing", [] { return symlink("/tmp/nothing", kLogFile); }},
        {"pipe that nobody reads", [] { return mkfifo(kLogFile, 0644); }},
    };
    std::ofstream("/tmp/victim") << "mine";
    for (const auto& [name, place] : obstacles) {
        SCOPED_TRACE(name);
        ASSERT_EQ(place(), 0);
        EXPECT_EQ(in_child([] { return print_line("seen"), 0; }), 0);
        EXPECT_THAT(log.take(), ElementsAre("seen"));
        EXPECT_EQ(contents("/tmp/victim"), "mine");
        EXPECT_FALSE(std::filesystem::exists("/tmp/nothing"));
        std::filesystem::remove(kLogFile);
    }
}

TEST_F(Log, DumpsElementsOfEveryWidthInRows) {
    const std::string rule8(78, '-'), rule16(54, '-'), rule32(42, '-'), rule64(35, '-');
    const std::string head8 =
        " 0    1    2    3    4    5    6    7    8    9    Ah   Bh   Ch   Dh   Eh   Fh";
    const std::string head16 = "   0      2      4      6      8      Ah     Ch     Eh";
    const std::string head32 = "       0          4          8          Ch";
    const std::string head64 = "               0                  8";
    uint8_t bytes[34] = {0x00, 0x0A, 0xFF, 0x09, 0x10, 0x01};
    bytes[15] = 0xAB;
    bytes[33] = 0x7F;
    const std::string row8 = " 0    Ah  FFh   9   10h   1    0    0    0    0    0    0    0    0    0   ABh";
    struct {
        const char* title;
        uint8_t width;
        uint64_t count;
        std::vector<std::string> expected;
    } const cases[] = {
        {"", 8, 3, {head8, rule8, " 0    Ah  FFh  ", rule8}},
        {"bytes", 8, 16, {"bytes", head8, rule8, row8, rule8}},
        {"", 8, 17, {head8, rule8, row8, " 0   ", rule8}},
        {"", 16, 3, {head16, rule16, " A00h   9FFh   110h  ", rule16}},
        {"",
         16,
         9,
         {head16, rule16, " A00h   9FFh   110h     0      0      0      0   AB00h", "   0   ", rule16}},
        {"", 32, 5, {head32, rule32, " 9FF0A00h       110h         0   AB000000h", "       0   ", rule32}},
        {"q",
         64,
         3,
         {"q", head64, rule64, "     11009FF0A00h  AB00000000000000h", "               0   ", rule64}},
        {"none", 64, 0, {"none", head64, rule64, rule64}},
        {"odd", 12, 3, {"odd"}},
        {"", 0, 3, {}},
    };
    for (const auto& c : cases) {
        trelm_dbg_dump(c.title, bytes, c.width, c.count);  // whatever the flags
        EXPECT_EQ(log.take(), c.expected) << c.title << int{c.width};
    }
}

// Lines of `writer`, each in two calls, so that writers who take no turns spoil each other's.
constexpr uint64_t kLines = 100;
void write_lines(uint64_t writer) {
    for (uint64_t i = 0; i < kLines; ++i) {
        trelm_dbg_print("writer", "(", writer, 10, 0);
        trelm_dbg_print(nullptr, "): a line that is long enough to be torn, number ", i, 10, 1);
    }
}

TEST_F(Log, KeepsLinesOfSeveralProcessesWholeInTheFile) {
    set_debug_flags(7);
    std::vector<std::unique_ptr<Child>> children;
    for (uint64_t writer = 0; writer < 4; ++writer)
        children.push_back(std::make_unique<Child>([writer] { return write_lines(writer), 0; }));
    for (const auto& child : children) EXPECT_EQ(child->wait(), 0);
    // All lines are whole, and those of each writer in their order.
    std::vector<uint64_t> next(4);
    for (const std::string& line : split_lines(contents(kLogFile))) {
        unsigned long writer = next.size(), number = 0;
        int length = -1;
        sscanf(line.c_str(),
               "%*3s %*2u %*2u:%*2u:%*2u: writer(%lu): a line that is long enough to be torn, number %lu%n",
               &writer, &number, &length);
        ASSERT_EQ(static_cast<size_t>(length), line.size()) << line;
        ASSERT_LT(writer, next.size());
        ASSERT_EQ(number, next[writer]++) << line;
    }
    EXPECT_THAT(next, testing::Each(kLines));
}

}  // namespace
