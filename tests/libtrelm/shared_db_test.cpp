// shared_db_test.cpp - the file that processes with the library loaded share: joining, leaving, and all
// failures of both. The process listing of the host is a script, so each test chooses how many copies are
// loaded.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/sem.h>

#include <fstream>

#include "shared_db.h"
#include "support/child.h"
#include "support/failing_allocation.h"
#include "support/log_capture.h"

namespace {
std::set<std::string_view> failing_calls;  // each fails once
int failing_error = EIO;
int flushes = 0;  // synchronous ones of the whole file
}  // namespace

#define FAILING(type, name, parameters, arguments, failure)                                     \
    extern "C" [[gnu::visibility("default")]] type name parameters {                            \
        static const auto next = reinterpret_cast<type(*) parameters>(dlsym(RTLD_NEXT, #name)); \
        if (failing_calls.empty() || !failing_calls.erase(#name)) return next arguments;        \
        errno = failing_error;                                                                  \
        return failure;                                                                         \
    }

extern "C" [[gnu::visibility("default")]] int msync(void* at, size_t size, int flags) {
    static const auto next = reinterpret_cast<int (*)(void*, size_t, int)>(dlsym(RTLD_NEXT, "msync"));
    flushes += at == trelm_shared_data && size == sizeof(trelm_shared_db) && flags == MS_SYNC;
    return next(at, size, flags);
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
using std::to_string;
using ::testing::Contains;
using ::testing::IsSupersetOf;

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

class SharedDatabase : public ::testing::Test {
  protected:
    SharedDatabase() { set_listing(2); }

    // Makes this many lines of the process listing name the library.
    void set_listing(unsigned lines) const {
        const fs::path lsof = host.root() / ".hostsim/bin/lsof";
        fs::remove(lsof);
        std::ofstream(lsof) << "#!/bin/sh\necho COMMAND; yes '100 agent /lib/libtrelm.so.5' | head -n "
                            << lines;
        fs::permissions(lsof, fs::perms::all);
    }
    // Opens the database as a process does that has just loaded the library. A fork would start with what its
    // parent has open.
    static uint8_t open_anew() {
        trelm_db_sem_id = trelm_shm_fildes = -1;
        trelm_shared_data = nullptr;
        trelm_library_instance = 255;
        int32_t fd = -77;
        EXPECT_EQ(trelm_open_database(&fd), 0U);
        EXPECT_EQ(fd, trelm_shm_fildes);
        return trelm_library_instance;
    }
    // The log if the first allocation of a size, or something else, fails.
    std::string fail_to_open(size_t allocation) {
        const FailingAllocation fail(allocation);
        int32_t fd = -77;
        EXPECT_EQ(trelm_open_database(&fd), 1U);
        EXPECT_EQ(fd, 0);
        EXPECT_EQ(trelm_shm_fildes, -1);
        return log.take_text();
    }
    // The log lines of one function.
    Lines said(const std::string& function) {
        Lines lines = log.take_of(function);
        for (std::string& line : lines) line.erase(0, function.size() + 2);
        return lines;
    }
    Lines close() {
        log.take();
        EXPECT_EQ(trelm_close_database(trelm_shm_fildes), 0U);
        return said("trelm_close_database");
    }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kAllLines};
};

TEST_F(SharedDatabase, IsUpgradedThoughSignalsInterruptReadsAndWrites) {
    write_file(std::string(1000, 'o'));
    failing_error = EINTR;
    failing_calls = {"read", "write"};
    open_anew();
    failing_error = EIO;
    EXPECT_TRUE(failing_calls.empty());
    EXPECT_THAT(said("trelm_open_database"), Contains("done upgrading shared data file."));
    EXPECT_EQ(contents().size(), kSize);
    close();
}

TEST_F(SharedDatabase, IsCreatedByTheFirstProcessJoinedByOthersAndRemovedByTheLast) {
    umask(0);
    open_anew();
    EXPECT_THAT(
        said("trelm_open_database"),
        ElementsAre("entered.", "got trelm_db_sem_id=" + to_string(the_set()), "before accessing shared db.",
                    "libi=0", "libinst_flags=0", "assigned api_lib_instance=0",
                    "trelm_shm_fildes=" + to_string(trelm_shm_fildes), "exiting. inst=0"));
    EXPECT_EQ(flushes, 1);
    EXPECT_EQ(fcntl(trelm_shm_fildes, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fs::status(kFile).permissions(), static_cast<fs::perms>(0644));
    EXPECT_TRUE(contents() == marks({5}) + std::string(kSize - 4, '\0'));
    trelm_shared_data->hbaptevq[7].q_tail = 0x1234;
    EXPECT_EQ(contents().substr(32 + 7 * kQueue + 4098, 2), "\x34\x12") << "what is mapped is the file";

    int32_t again = 0;
    trelm_open_database(&again);
    EXPECT_EQ(again, trelm_shm_fildes);
    EXPECT_THAT(said("trelm_open_database"),
                ElementsAre("entered.", "already opened. trelm_ev_terminate FALSE."));

    auto& slot = make_common<std::atomic<int>>();
    Child second([&] {
        slot = open_anew();
        return pause();
    });
    ASSERT_TRUE(eventually([&] { return slot == 1; }));
    set_listing(4);
    EXPECT_THAT(
        close(),
        ElementsAre("inst=0, going to clean up shared mem.", "inst=0, this is not last instance. load_inst=2",
                    "inst=0, going to free up api instance.", "delete_sem=0", "keeping semaphore.",
                    "close db file.", "keeping shared db file.", "exiting, ret=0"));
    EXPECT_EQ(flushes, 2);
    EXPECT_EQ(contents().substr(0, 12), marks({0, 5, 0}));
    EXPECT_EQ(semctl(the_set(), 0, GETVAL), 1);
    EXPECT_THAT(close(), ElementsAre("keeping shared db file.", "exiting, ret=0")) << "closed already";
    EXPECT_EQ(open_anew(), 0) << "the slot that came free";
    set_debug_flags(kErrorLines);
    EXPECT_THAT(
        close(),
        ElementsAre("inst=0, going to clean up shared mem.", "inst=0, this is not last instance. load_inst=2",
                    "inst=0, going to free up api instance.", "close db file.", "keeping shared db file."))
        << "error lines alone";
    set_debug_flags(kAllLines);
    EXPECT_EQ(open_anew(), 0);
    semctl(the_set(), 0, IPC_RMID);
    close();
    EXPECT_EQ(contents().substr(0, 12), marks({0, 5, 0})) << "a set that is gone is made anew";
    EXPECT_EQ(semctl(the_set(), 0, GETVAL), 1);
    EXPECT_EQ(open_anew(), 0);
    second.kill_and_wait();
    set_listing(2);
    EXPECT_THAT(close(),
                ElementsAre("inst=0, going to clean up shared mem.", "inst=0, going to free up api instance.",
                            "delete_sem=1", "close db file.", "deleting shared db file.", "exiting, ret=0"));
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_EQ(the_set(), -1);
}

TEST_F(SharedDatabase, AcceptsAFileOfAnySizeAndFreesSlotsWhenAllAreTaken) {
    // The first bytes of the file (other bytes are not 0), its size, the slot, the flags afterwards, the log.
    const std::tuple<std::string, size_t, uint8_t, std::string, const char*> cases[] = {
        {"", 0, 0, marks({5}), "done upgrading shared data file."},
        {std::string(3, '\0'), 3, 0, marks({5}), "done upgrading shared data file."},
        {marks({4, 0xFFFFFFF2}), kSize - 1, 1, marks({4, 0xFFFFFFF7}), "done upgrading shared data file."},
        {marks({5, 4, 7, 5, 6, 5, 5, 5}), kSize, 0, marks({5, 0, 3, 1, 2, 1, 1, 1}),
         "INFO - Assigning lib instance number to 0."},
        {marks({7, 2}), 200000, 1, marks({7, 7}), "assigned api_lib_instance=1"},
    };
    for (const auto& [before, size, slot, after, line] : cases) {
        SCOPED_TRACE(size);
        std::string expected = before;
        while (expected.size() < size) expected += static_cast<char>(1 + expected.size() % 255);
        write_file(expected);
        expected.resize(std::max(size, kSize));
        expected.replace(0, after.size(), after);
        expected.replace(32 + slot * kQueue, kQueue, kQueue, '\0');
        log.take();
        EXPECT_EQ(open_anew(), slot);
        EXPECT_TRUE(contents() == expected);
        EXPECT_THAT(said("trelm_open_database"), ::testing::Contains(line));
        close();
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
        EXPECT_EQ(open_anew(), 0);
        EXPECT_TRUE(contents() == marks({5}) + std::string(kSize - 4, '\0'));
        struct stat status {};
        lstat(kFile, &status);
        EXPECT_EQ(status.st_uid, geteuid());
        EXPECT_EQ(fs::file_size("/tmp/victim"), 4U);
        close();
    }
    write_file({});
    fs::permissions(kFile, static_cast<fs::perms>(0666));
    open_anew();
    EXPECT_EQ(fs::status(kFile).permissions(), static_cast<fs::perms>(0644)) << "nobody else may cut it";
}

TEST_F(SharedDatabase, CountsTwoLinesOfTheListingAsOneProcess) {
    for (const auto& [lines, count] :
         {std::pair{1U, 0}, {2, 1}, {5, 2}, {511, 255}, {512, 255}, {5000, 255}}) {
        set_listing(lines);
        EXPECT_EQ(trelm_get_total_libinst_count(), count) << lines;
    }
    failing_calls = {"popen"};
    EXPECT_EQ(trelm_get_total_libinst_count(), 0);
    EXPECT_THAT(log.take(), ElementsAre("trelm_get_total_libinst_count: popen failed."));
}

TEST_F(SharedDatabase, KeepsItsFileIfItCannotCountProcessesOrRemoveIt) {
    open_anew();
    set_listing(0);
    EXPECT_THAT(close(), IsSupersetOf(Lines{"delete_sem=1", "keeping shared db file."}));
    EXPECT_EQ(the_set(), -1);
    set_listing(2);
    open_anew();
    failing_calls = {"remove"};
    EXPECT_THAT(close(), IsSupersetOf(Lines{"deleting shared db file.",
                                            "Unable to remove shared data file. errno=5"}));
    EXPECT_EQ(contents(), std::string(kSize, '\0'));
    open_anew();
    trelm_library_instance = 255;
    EXPECT_THAT(close(), ElementsAre("close db file.", "keeping shared db file.", "exiting, ret=0"));
}

TEST_F(SharedDatabase, FailsAtTheFirstFaultAndKeepsTheFormerContents) {
    const auto nothing = [] {};
    const auto old = [] { write_file(std::string(1000, 'o')); };
    const std::string cannot_create = "Unable to create shared data file. errno=";
    const std::string unremoved = "\ntrelm_open_database: Unable to remove shared data file. errno=5";
    // What is at the path, the failing call, the size of the failing allocation, the log, and the size of the
    // file afterwards or -1.
    const std::tuple<void (*)(), std::set<std::string_view>, size_t, std::string, ssize_t> faults[] = {
        {[] { mkdir(kFile, 0755); }, {}, 1, cannot_create + to_string(EISDIR), -1},
        {[] { fs::create_symlink("/tmp/victim", kFile); }, {}, 1, cannot_create + to_string(ELOOP), -1},
        {nothing, {"write"}, 1, "Unable to write completely to shared data file. errno=5", -1},
        {nothing, {"fsync", "remove"}, 1, "fsync failed. errno=5" + unremoved, kSize},
        {nothing, {}, kSize, "malloc tmp mem failed=12", 0},
        {old, {"read"}, 1, "Unable to read shared data file. errno=5", 1000},
        {old, {"lseek"}, 1, "Unable to seek to beginning of shared data file. errno=5", 1000},
        {old, {"write"}, 1, "Unable to upgrade shared data file. errno=5", 1000},
        {old, {"fsync"}, 1, "fsync failed for existing file. errno=5", kSize},
        {old, {}, 1000, "malloc failed=12", 1000},
        {old, {}, kSize, "Unable to alloc new shared data buf. errno=12", 1000},
        {nothing, {"mmap"}, 1, "mmap on existing cxmgmt_native.dat failed=5", kSize},
    };
    set_debug_flags(kErrorLines);
    std::ofstream("/tmp/victim") << "mine";
    for (const auto& [place, calls, allocation, message, size] : faults) {
        SCOPED_TRACE(message);
        place();
        failing_calls = calls;
        EXPECT_EQ(fail_to_open(allocation), "trelm_open_database: " + message + "\n");
        EXPECT_TRUE(failing_calls.empty());
        EXPECT_EQ(the_set(), -1);
        EXPECT_EQ(trelm_shared_data, nullptr);
        const bool is_file = fs::is_regular_file(fs::symlink_status(kFile));
        EXPECT_EQ(is_file ? static_cast<ssize_t>(fs::file_size(kFile)) : -1, size);
        EXPECT_EQ(fs::file_size("/tmp/victim"), 4U);
        fs::remove(kFile);
    }
    const int foreign = semget(kKey, 3, IPC_CREAT | 0644);
    EXPECT_EQ(fail_to_open(1),
              "trelm_open_database: WARNING - semget function not supported.\n"
              "  Each adapter instance should be opened at most one time. errno=17\n");
    EXPECT_EQ(the_set(), foreign);
}

}  // namespace
