// dbg_test.cpp - the debug log: its lines, their form and their destinations. semaphores_test.cpp tests that
// processes take turns.
#include <fcntl.h>
#include <sys/sem.h>

#include <fstream>

#include "support/child.h"
#include "support/failing_allocation.h"
#include "support/story.h"

namespace {
tm local_time{0, 0, 2, 5, 10, 119, 0, 0, -1, 0, nullptr};
time_t what_time_it_is = 0;
}  // namespace

static std::vector<std::string> synced;  // the log file as each sync() found it

constexpr char kLogFile[] = "/var/tmp/libtrelm.log";  // of the simulated host

static std::string contents(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

extern "C" [[gnu::visibility("default")]] time_t time(time_t* out) noexcept {
    return out ? *out = what_time_it_is : what_time_it_is;
}
extern "C" [[gnu::visibility("default")]] void sync() noexcept { synced.push_back(contents(kLogFile)); }

namespace {

using namespace trelm::test;

void print_line(const std::string& text) { trelm_dbg_print(nullptr, text.c_str(), 0, 0, 1); }

// Every test logs on its own host.
class Log : public ::testing::Test {
  protected:
    Log() {
        what_time_it_is = mktime(&local_time);
        trelmlog_path[0] = 0;
        trelm_dbg_sem_id = -1;
    }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kSilent};
};

TEST_F(Log, TakesItsFlagsFromTheEnvironmentAndMakesASemaphoreWhenFirstOn) {
    constexpr std::tuple<const char*, uint32_t, bool> kCases[] = {
        // value or null, flags, semaphore
        {nullptr, 0, false}, {"junk", 0, false}, {"100000000", 0, false}, {"0x4", 4, true},
        {nullptr, 4, true},  {"1F", 0x1F, true}, {"100000007", 7, true},  {"0", 0, true}};
    for (const auto& [value, flags, has_semaphore] : kCases) {
        SCOPED_TRACE(value ? value : "not set");
        value ? setenv("TRELM_API_DEBUG", value, 1) : unsetenv("TRELM_API_DEBUG");
        trelm_set_debug_level();
        EXPECT_EQ(trelm_debug, flags);
        EXPECT_EQ(trelm_dbg_sem_id, semget(883, 0, 0));
        EXPECT_EQ(trelm_dbg_sem_id >= 0, has_semaphore);
    }
    print_line("off");
    EXPECT_EQ(log.take_text(), "");
    EXPECT_EQ(trelm_dbg_get_fptr(), nullptr);
}

TEST_F(Log, WritesNumbersUnsignedAndHexadecimalOnesAboveNineWithAnH) {
    set_debug_flags(kAllLines);
    for (const uint64_t number :
         {UINT64_C(0), UINT64_C(9), UINT64_C(10), UINT64_C(0x0123456789ABCDEF), UINT64_MAX}) {
        trelm_dbg_print("n", "=", number, 10, 1);
        trelm_dbg_print("n", "=", number, 16, 1);
    }
    trelm_dbg_print("func", "(", 3, 10, 0);  // a line may come in several calls
    trelm_dbg_print(nullptr, ") %s%n", 0, 0, 2);
    EXPECT_EQ(log.take_text(),
              "n=0\nn=0\nn=9\nn=9\nn=10\nn=Ah\nn=81985529216486895\nn=123456789ABCDEFh\n"
              "n=18446744073709551615\nn=FFFFFFFFFFFFFFFFh\n");
    trelm_dbg_print(nullptr, ": x=", 12, 16, 1);
    EXPECT_EQ(log.take_text(), "func(3) %s%n: x=Ch\n");
}

TEST_F(Log, StampsLinesOfTheFileWithTheLocalTimeAndAppendsThem) {
    std::ofstream(kLogFile) << "older\n";
    memset(trelmlog_path + 1, 0x7F, sizeof trelmlog_path - 1);  // the library names its file in 256 bytes
    set_debug_flags(kAllLines);
    print_line("on the terminal");
    set_debug_flags(1);  // lines reach the file and the terminal without any category
    what_time_it_is = INT64_MAX;
    print_line("lost: its year is out of range");
    what_time_it_is = mktime(&local_time);
    trelm_dbg_print("func", "(", 1, 10, 0);
    print_line("): entered.");
    EXPECT_THAT(synced, ElementsAre("older\nNov 05 02:00:00: ")) << "the stamp is on disk before the line";
    const uint8_t byte = 5;
    trelm_dbg_dump("title", &byte, 12, 0);
    EXPECT_NE(trelmdbg_fp, nullptr) << "open from a dump to the next line";
    const std::string end = std::string(300, 'y') + "\n";
    print_line(end.substr(0, 300));
    EXPECT_EQ(trelmdbg_fp, nullptr);
    EXPECT_EQ(contents(kLogFile),
              "older\nNov 05 02:00:00: func(1): entered.\ntitle\nNov 05 02:00:00: " + end);
    EXPECT_EQ(std::string(trelmlog_path, 257), kLogFile + std::string(256 - strlen(kLogFile), '\0') + '\x7F');
    EXPECT_EQ(log.take_text(), "on the terminal\nfunc(1): entered.\ntitle\n" + end);
}

TEST_F(Log, GoesToTheFileThatTheProgramNames) {
    strcpy(trelmlog_path, "/tmp/own.log");
    set_debug_flags(1);
    umask(0);
    trelm_dbg_print(nullptr, "he", 0, 0, 2);
    print_line("re");
    EXPECT_EQ(contents("/tmp/own.log"), "Nov 05 02:00:00: here\n");
    EXPECT_EQ(std::filesystem::status("/tmp/own.log").permissions(),
              static_cast<std::filesystem::perms>(0666));
}

TEST_F(Log, LeavesInPiecesOf251CharactersAndWithoutMemoryNotAtAll) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);  // one read returns the bytes of one write
    set_debug_flags(kErrorLines);
    dup2(ends[1], 2);
    print_line(std::string(300, 'y'));
    {
        const FailingAllocation fail(256);
        print_line("lost");
    }
    print_line("end");
    std::vector<ssize_t> pieces;
    for (char piece[1000]; pieces.empty() || pieces.back() != 4;)
        pieces.push_back(read(ends[0], piece, sizeof piece));
    EXPECT_THAT(pieces, ElementsAre(251, 50, 4));
}

TEST_F(Log, WorksWithoutFileOrSemaphoreAndPreservesErrno) {
    set_debug_flags(7);
    std::ofstream("/tmp/victim") << "mine";
    for (const auto& place :
         {+[] { return mkdir(kLogFile, 0755); }, +[] { return symlink("/tmp/victim", kLogFile); },
          +[] { return symlink("/tmp/new", kLogFile); }, +[] { return mkfifo(kLogFile, 0644); },
          +[] { return link("/tmp/victim", kLogFile); }}) {
        ASSERT_EQ(place(), 0);
        EXPECT_EQ(in_child([] { return print_line("seen"), 0; }), 0) << "a pipe that nobody reads hangs";
        EXPECT_EQ(contents("/tmp/victim") + contents("/tmp/new"), "mine");
        std::filesystem::remove(kLogFile);
    }
    std::ofstream(kLogFile).flush();
    if (chown(kLogFile, 65534, 0) == 0) {
        print_line("seen");
        EXPECT_EQ(contents(kLogFile), "") << "another user's file";
    }
    EXPECT_THAT(log.take(), testing::SizeIs(testing::Ge(5U)));
    strcpy(trelmlog_path, "/var/tmp/none/x.log");
    semctl(trelm_dbg_sem_id, 0, IPC_RMID);
    errno = 77;
    print_line("removed");
    trelm_dbg_dump("dump", nullptr, 12, 0);
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(log.take_text(), "removed\ndump\n");
}

TEST(Dump, ShowsElementsOfEveryWidthInRows) {
    const hostsim::Host host(hostsim::hosts::empty());
    Story story(kTraceLines);
    uint8_t bytes[34] = {0x00, 0x0A, 0xFF, 0x09, 0x10, 0x01};
    bytes[15] = 0xAB;
    for (const auto& [width, count] :
         {std::pair<uint8_t, uint64_t>{8, 17}, {16, 9}, {32, 5}, {64, 2}, {12, 3}})
        story.tell(fmt::format("{} elements of {} bits", count, width), [&, bits = width, elements = count] {
            trelm_dbg_dump("title", bytes, bits, elements);
            return 0U;
        });
    story.expect_golden("dump");
}

}  // namespace
