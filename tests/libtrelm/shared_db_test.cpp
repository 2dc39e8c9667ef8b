// shared_db_test.cpp - the file that processes with the library loaded share: joining, leaving, and all
// failures of both. The process listing of the host is a script, so each test chooses how many copies are
// loaded.
#include <fcntl.h>
#include <sys/sem.h>

#include <fstream>

#include "root_layout.h"
#include "shared_db.h"
#include "support/child.h"
#include "support/failing_allocation.h"
#include "support/libc_replacements.h"
#include "support/story.h"

namespace {
std::set<std::string_view> failing_calls;  // each fails once
int failing_error = EIO;
int flushes = 0;  // synchronous ones of the whole file
}  // namespace

#define FAILING(type, name, parameters, arguments, failure)                                       \
    REPLACES_LIBC(type, name, parameters) {                                                       \
        if (failing_calls.empty() || !failing_calls.erase(#name)) return NEXT_OF(name) arguments; \
        errno = failing_error;                                                                    \
        return failure;                                                                           \
    }

REPLACES_LIBC(int, msync, (void* at, size_t size, int flags)) {
    flushes += at == trelm_shared_data && size == sizeof(trelm_shared_db) && flags == MS_SYNC;
    return NEXT_OF(msync)(at, size, flags);
}
FAILING(int, fsync, (int fd), (fd), -1)
FAILING(int, remove, (const char* path), (path), -1)
FAILING(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), -1)
FAILING(void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t offset),
        (at, size, access, flags, fd, offset), MAP_FAILED)
FAILING(FILE*, popen, (const char* command, const char* mode), (command, mode), nullptr)
FAILING(ssize_t, read, (int fd, void* bytes, size_t count), (fd, bytes, count), -1)
FAILING(ssize_t, write, (int fd, const void* bytes, size_t count), (fd, bytes, count), -1)

namespace {

using namespace trelm::test;
namespace fs = std::filesystem;

constexpr char kFile[] = "/tmp/trelm_shared.dat";  // of the simulated host
constexpr size_t kSize = 163840;
constexpr size_t kQueue = 4116;
constexpr key_t kKey = 812;
constexpr uid_t kNobody = 65534;

int the_set() { return semget(kKey, 0, 0); }

std::string contents() {
    std::ifstream file(kFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
void write_file(const std::string& bytes) { std::ofstream(kFile, std::ios::binary) << bytes; }

// The flags of the slots in the file.
std::string marks(std::initializer_list<uint32_t> slots) {
    return {reinterpret_cast<const char*>(slots.begin()), 4 * slots.size()};
}

const std::string kAllTaken = marks({5, 4, 7, 5, 6, 5, 5, 5});

// Opens the database as a process does that has just loaded the library. A fork would start with what its
// parent has open.
uint32_t open_anew() {
    trelm_db_sem_id = trelm_shm_fildes = -1;
    trelm_shared_data = nullptr;
    trelm_library_instance = 255;
    int32_t fd = -77;
    const uint32_t result = trelm_open_database(&fd);
    EXPECT_EQ(fd, result == 0 ? trelm_shm_fildes : 0);
    return result;
}
uint32_t leave() { return trelm_close_database(trelm_shm_fildes); }

// Makes this many lines of the process listing name the library.
void set_listing(const hostsim::Host& host, unsigned lines) {
    const std::string lsof = host.root().string() + hostsim::layout::kListing;
    fs::remove(lsof);
    std::ofstream(lsof) << "#!/bin/sh\necho COMMAND; yes '100 agent /lib/libtrelm.so.5' | head -n " << lines;
    fs::permissions(lsof, fs::perms::all);
}

class SharedDatabase : public ::testing::Test {
  protected:
    SharedDatabase() { set_listing(host, 2); }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kSilent};
};

class GoldenSharedDatabase : public GoldenStory {
  protected:
    GoldenSharedDatabase() { set_listing(host, 2); }
};
TRELM_IN_EACH_CATEGORY(GoldenSharedDatabase);

TEST_P(GoldenSharedDatabase, LogsOpensAndCloses) {
    int32_t fd = 0;
    TELL(open_anew());
    TELL(trelm_open_database(&fd));
    EXPECT_EQ(fd, trelm_shm_fildes);
    set_listing(host, 20);
    TELL(leave());
    TELL(leave());
    set_listing(host, 2);
    write_file(std::string(1000, 'o'));
    TELL(open_anew());
    TELL(leave());
    EXPECT_TRUE(!fs::exists(kFile) && the_set() == -1) << "the last process removes them";
    write_file(kAllTaken + std::string(kSize - kAllTaken.size(), '\0'));
    TELL(open_anew());
    failing_error = ENOSPC;
    failing_calls = {"popen"};
    TELL(leave());
    TELL(open_anew());
    failing_calls = {"remove"};
    TELL(leave());
    story.expect_golden("shared_db");
}

TEST_F(SharedDatabase, IsUpgradedThoughSignalsInterruptReadsAndWrites) {
    write_file(std::string(1000, 'o'));
    failing_error = EINTR;
    failing_calls = {"read", "write"};
    EXPECT_EQ(open_anew(), 0U);
    EXPECT_TRUE(failing_calls.empty());
    EXPECT_EQ(contents().size(), kSize);
}

TEST_F(SharedDatabase, IsAMappedFileThatOthersMayRead) {
    umask(0);
    open_anew();
    EXPECT_EQ(flushes, 1);
    EXPECT_EQ(fcntl(trelm_shm_fildes, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fs::status(kFile).permissions(), static_cast<fs::perms>(0644));
    EXPECT_TRUE(contents() == marks({5}) + std::string(kSize - 4, '\0'));
    trelm_shared_data->hbaptevq[7].q_tail = 0x1234;
    EXPECT_EQ(contents().substr(32 + 7 * kQueue + 4098, 2), "\x34\x12");
}

TEST_F(SharedDatabase, GivesEachProcessASlotUntilItLeaves) {
    open_anew();
    auto& slot = make_common<std::atomic<int>>();
    const Child second([&] {
        open_anew();
        slot = trelm_library_instance;
        return pause();
    });
    ASSERT_TRUE(eventually([&] { return slot == 1; }));
    set_listing(host, 4);
    leave();
    EXPECT_EQ(flushes, 2);
    EXPECT_EQ(contents().substr(0, 12), marks({0, 5, 0}));
    EXPECT_EQ(semctl(the_set(), 0, GETVAL), 1);
    open_anew();
    EXPECT_EQ(trelm_library_instance, 0) << "the slot that came free";
}

TEST_F(SharedDatabase, IsLeftUnderANewSetIfItsOwnIsGone) {
    open_anew();
    set_listing(host, 4);
    semctl(the_set(), 0, IPC_RMID);
    leave();
    EXPECT_EQ(contents().substr(0, 4), marks({0}));
    EXPECT_EQ(semctl(the_set(), 0, GETVAL), 1);
}

TEST_F(SharedDatabase, AcceptsAFileOfAnySizeAndFreesSlotsWhenAllAreTaken) {
    // The first bytes of the file (other bytes are not 0), its size, the slot, the flags afterwards.
    const std::tuple<std::string, size_t, uint8_t, std::string> cases[] = {
        {"", 0, 0, marks({5})},
        {std::string(3, '\0'), 3, 0, marks({5})},
        {marks({4, 0xFFFFFFF2}), kSize - 1, 1, marks({4, 0xFFFFFFF7})},
        {kAllTaken, kSize, 0, marks({5, 0, 3, 1, 2, 1, 1, 1})},
        {marks({7, 2}), 200000, 1, marks({7, 7})},
    };
    for (const auto& [before, size, slot, after] : cases) {
        SCOPED_TRACE(size);
        std::string expected = before;
        while (expected.size() < size) expected += static_cast<char>(1 + expected.size() % 255);
        write_file(expected);
        expected.resize(std::max(size, kSize));
        expected.replace(0, after.size(), after);
        expected.replace(32 + slot * kQueue, kQueue, kQueue, '\0');
        EXPECT_EQ(open_anew(), 0U);
        EXPECT_EQ(trelm_library_instance, slot);
        EXPECT_TRUE(contents() == expected);
        leave();
    }
}

// Its creator could truncate it while it is mapped, or redirect writes to another file.
TEST_F(SharedDatabase, ReplacesWhatAnotherUserMadeOrGaveASecondName) {
    const std::pair<void (*)(), uid_t> cases[] = {
        {[] { fs::create_hard_link("/tmp/victim", kFile); }, 0},
        {[] {
             write_file(marks({5, 5}) + std::string(kSize, 'x'));
         },
         kNobody},
        {[] { fs::create_symlink("/tmp/victim", kFile); }, kNobody},
        {[] { mkfifo(kFile, 0600); }, kNobody},
        {[] { mkdir(kFile, 0700); }, kNobody},
    };
    std::ofstream("/tmp/victim") << "mine";
    for (const auto& [place, owner] : cases) {
        place();
        if (owner != 0 && lchown(kFile, owner, owner) != 0)
            GTEST_SKIP() << "this user cannot act for another";
        EXPECT_EQ(open_anew(), 0U);
        EXPECT_TRUE(contents() == marks({5}) + std::string(kSize - 4, '\0'));
        struct stat status {};
        lstat(kFile, &status);
        EXPECT_EQ(status.st_uid, geteuid());
        EXPECT_EQ(fs::file_size("/tmp/victim"), 4U);
        leave();
    }
    write_file({});
    fs::permissions(kFile, static_cast<fs::perms>(0666));
    open_anew();
    EXPECT_EQ(fs::status(kFile).permissions(), static_cast<fs::perms>(0644)) << "nobody else may cut it";
}

TEST_F(SharedDatabase, CountsTwoLinesOfTheListingAsOneProcess) {
    for (const auto& [lines, count] :
         {std::pair{1U, 0}, {2, 1}, {5, 2}, {511, 255}, {512, 255}, {5000, 255}}) {
        set_listing(host, lines);
        EXPECT_EQ(trelm_get_total_libinst_count(), count) << lines;
    }
}

TEST_F(SharedDatabase, KeepsItsFileIfItCannotCountProcessesOrRemoveIt) {
    open_anew();
    set_listing(host, 0);
    leave();
    EXPECT_EQ(the_set(), -1);
    set_listing(host, 2);
    open_anew();
    failing_calls = {"remove"};
    leave();
    EXPECT_EQ(contents(), std::string(kSize, '\0'));
    open_anew();
    trelm_library_instance = 255;
    leave();
    EXPECT_EQ(contents().substr(0, 4), marks({5})) << "a process without a slot gives none back";
}

TEST_P(GoldenSharedDatabase, FailsAtTheFirstFaultAndKeepsTheFormerContents) {
    const auto nothing = [] {};
    const auto old = [] { write_file(std::string(1000, 'o')); };
    // What is at the path, the failing calls, the size of the failing allocation, and the size of the file
    // afterwards or -1.
    const std::tuple<const char*, void (*)(), std::set<std::string_view>, size_t, ssize_t> faults[] = {
        {"a directory", [] { mkdir(kFile, 0755); }, {}, 1, -1},
        {"a pipe", [] { mkfifo(kFile, 0644); }, {}, 1, -1},
        {"a link", [] { fs::create_symlink("/tmp/victim", kFile); }, {}, 1, -1},
        {"a write that fails", nothing, {"write"}, 1, -1},
        {"a new file that is neither synchronised nor removed", nothing, {"fsync", "remove"}, 1, kSize},
        {"no memory for a new file", nothing, {}, kSize, 0},
        {"a read that fails", old, {"read"}, 1, 1000},
        {"a seek that fails", old, {"lseek"}, 1, 1000},
        {"an upgrade that fails", old, {"write"}, 1, 1000},
        {"an upgrade that is not synchronised", old, {"fsync"}, 1, kSize},
        {"no memory for the old contents", old, {}, 1000, 1000},
        {"no memory for an upgrade", old, {}, kSize, 1000},
        {"a mapping that fails", nothing, {"mmap"}, 1, kSize},
    };
    std::ofstream("/tmp/victim") << "mine";
    failing_error = ENOSPC;
    for (const auto& [name, place, calls, allocation, size] : faults) {
        SCOPED_TRACE(name);
        place();
        failing_calls = calls;
        story.tell(name, [&fails = allocation] {
            const FailingAllocation fail(fails);
            return open_anew();
        });
        EXPECT_TRUE(failing_calls.empty());
        EXPECT_EQ(the_set(), -1);
        EXPECT_EQ(trelm_shared_data, nullptr);
        const bool is_file = fs::is_regular_file(fs::symlink_status(kFile));
        EXPECT_EQ(is_file ? static_cast<ssize_t>(fs::file_size(kFile)) : -1, size);
        EXPECT_EQ(fs::file_size("/tmp/victim"), 4U);
        fs::remove(kFile);
    }
    const int foreign = semget(kKey, 3, IPC_CREAT | 0644);
    story.tell("a set of another program", open_anew);
    EXPECT_EQ(the_set(), foreign);
    story.expect_golden("shared_db_faults");
}

}  // namespace
