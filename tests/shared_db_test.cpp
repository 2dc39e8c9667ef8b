// shared_db_test.cpp - the file that processes with the library loaded share: joining it, leaving it, and
// every way in which that fails. The host's process listing is a script here, so that a test says how many
// copies are loaded.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host.h"
#include "hosts.h"
#include "support/child.h"
#include "support/descriptors.h"
#include "support/failing_allocation.h"
#include "support/log_capture.h"
#include "trelm_core.h"
#include "trelm_core/shared_db.h"

// ---- System calls that fail once, where nothing else makes them fail
// ---------------------------------------------------

namespace {

std::string_view failing_call;

bool fails(std::string_view name) {
    if (failing_call != name) return false;
    failing_call = {};
    errno = EIO;
    return true;
}

}  // namespace

#define FAILING(type, name, parameters, arguments, failure)                                     \
    extern "C" [[gnu::visibility("default")]] type name parameters {                            \
        static const auto next = reinterpret_cast<type(*) parameters>(dlsym(RTLD_NEXT, #name)); \
        return fails(#name) ? failure : next arguments;                                         \
    }

FAILING(int, fsync, (int fd), (fd), -1)
FAILING(int, remove, (const char* path), (path), -1)
FAILING(off_t, lseek, (int fd, off_t offset, int whence), (fd, offset, whence), -1)
FAILING(void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t offset),
        (at, size, access, flags, fd, offset), MAP_FAILED)
FAILING(ssize_t, read, (int fd, void* bytes, size_t count), (fd, bytes, count), -1)

namespace {

using namespace trelm::test;
using std::to_string;
using ::testing::ElementsAre;
using ::testing::Not;
using ::testing::StartsWith;

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

constexpr char kFile[] = "/tmp/trelm_shared.dat";  // of the simulated host
constexpr size_t kSize = 163840;
constexpr key_t kKey = 812;

bool has_set() { return semget(kKey, 0, 0) >= 0; }

std::string contents() {
    std::ifstream file(kFile, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

uint32_t flags_in(const std::string& file, size_t slot) {
    uint32_t flags = 0;
    memcpy(&flags, file.data() + 4 * slot, sizeof flags);
    return flags;
}
uint32_t flags_of(size_t slot) { return flags_in(contents(), slot); }

void write_file(const std::string& bytes) { std::ofstream(kFile, std::ios::binary) << bytes; }

// A file of that size in which no byte is 0 and these slots are marked as given.
std::string old_file(size_t size, std::initializer_list<uint32_t> slot_flags) {
    std::string bytes;
    for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(1 + i % 255);
    size_t at = 0;
    for (uint32_t flags : slot_flags) {
        memcpy(bytes.data() + at, &flags, sizeof flags);
        at += sizeof flags;
    }
    return bytes;
}

std::string queue_of(const std::string& file, size_t slot) { return file.substr(32 + slot * 4116, 4116); }

std::string with(const std::string& text, int error) { return text + to_string(error); }

class SharedDatabase : public ::testing::Test {
  protected:
    SharedDatabase() {
        forget();
        set_listing(2);
    }

    // As in a process that has the library newly loaded; a fork begins with what its parent has open.
    static void forget() {
        trelm_db_sem_id = trelm_shm_fildes = -1;
        trelm_shared_data = nullptr;
        trelm_library_instance = 255;
    }

    // The host's lsof is this shell script.
    void set_lsof(const std::string& script) const {
        const fs::path lsof = host.root() / ".hostsim/bin/lsof";
        fs::remove(lsof);
        std::ofstream(lsof) << "#!/bin/sh\n" << script;
        fs::permissions(lsof, fs::perms::all);
    }
    // So many lines name the library.
    void set_listing(unsigned lines) const {
        set_lsof("echo COMMAND; yes '100 agent /lib/libtrelm.so.5' | head -n " + to_string(lines) +
                 "; echo other");
    }

    int32_t open() {
        int32_t fd = -77;
        EXPECT_EQ(trelm_open_database(&fd), 0U);
        return fd;
    }
    int32_t open_anew() {
        forget();
        return open();
    }
    void close() { EXPECT_EQ(trelm_close_database(trelm_shm_fildes), 0U); }
    Lines opening(Lines lines) const {
        for (std::string& line : lines) line.insert(0, "trelm_open_database: ");
        return lines;
    }
    // What the log says of closing.
    Lines closing_lines() {
        log.take();
        close();
        Lines lines = log.take_of("trelm_close_database");
        for (std::string& line : lines) line.erase(0, strlen("trelm_close_database: "));
        return lines;
    }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kAllLines};
};

TEST_F(SharedDatabase, IsCreatedByTheFirstProcessAndRemovedByTheLast) {
    EXPECT_STREQ(trelm_db_fname, kFile);
    EXPECT_EQ(trelm_library_instance, 255);
    umask(0);
    const int32_t fd = open();
    const std::string fd_text = to_string(fd);
    const std::string id = to_string(semget(kKey, 0, 0));
    EXPECT_EQ(log.take(), opening({"entered.", "got trelm_db_sem_id=" + id, "before accessing shared db.",
                                   "libi=0", "libinst_flags=0", "assigned api_lib_instance=0",
                                   "trelm_shm_fildes=" + fd_text, "exiting. inst=0"}));
    EXPECT_EQ(trelm_shm_fildes, fd);
    EXPECT_EQ(trelm_library_instance, 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fs::status(kFile).permissions(), static_cast<fs::perms>(0644));
    std::string expected(kSize, '\0');
    expected[0] = 5;
    EXPECT_TRUE(contents() == expected);
    EXPECT_EQ(semctl(trelm_db_sem_id, 0, GETVAL), 1);
    trelm_shared_data->hbaptevq[7].q_tail = 0x1234;  // what is mapped is the file
    EXPECT_EQ(queue_of(contents(), 7).substr(4098, 2), "\x34\x12");

    EXPECT_EQ(open(), fd);  // once open, it stays as it is
    EXPECT_EQ(log.take(), opening({"entered.", "already opened. trelm_ev_terminate FALSE."}));
    EXPECT_EQ(flags_of(1), 0U);

    EXPECT_THAT(closing_lines(),
                ElementsAre("inst=0, going to clean up shared mem.", "inst=0, going to free up api instance.",
                            "delete_sem=1", "close db file.", "deleting shared db file.", "exiting, ret=0"));
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_FALSE(has_set());
    EXPECT_EQ(trelm_db_sem_id, -1);
    EXPECT_EQ(trelm_shm_fildes, -1);
    EXPECT_EQ(trelm_shared_data, nullptr);
    EXPECT_EQ(trelm_library_instance, 0);
    EXPECT_THAT(closing_lines(), ElementsAre("keeping shared db file.", "exiting, ret=0"));
}

TEST_F(SharedDatabase, GivesEachProcessASlotAndStaysWhileAnotherHasIt) {
    open();
    log.take();
    Child second([this](Channel& parent) {
        open_anew();
        EXPECT_EQ(trelm_library_instance, 1);
        parent.send("o");
        return (pause(), 0);
    });
    ASSERT_EQ(second.receive(1), "o");
    EXPECT_THAT(log.take(),
                ::testing::IsSupersetOf(opening({"libi=0", "libinst_flags=5", "libi=1", "libinst_flags=0",
                                                 "assigned api_lib_instance=1", "exiting. inst=1"})));
    EXPECT_EQ(flags_of(0), 5U);
    EXPECT_EQ(flags_of(1), 5U);
    set_listing(4);
    EXPECT_THAT(
        closing_lines(),
        ElementsAre("inst=0, going to clean up shared mem.", "inst=0, this is not last instance. load_inst=2",
                    "inst=0, going to free up api instance.", "delete_sem=0", "keeping semaphore.",
                    "close db file.", "keeping shared db file.", "exiting, ret=0"));
    EXPECT_EQ(flags_of(0), 0U);
    EXPECT_EQ(flags_of(1), 5U);
    EXPECT_EQ(semctl(semget(kKey, 0, 0), 0, GETVAL), 1);
    const std::string before = contents();
    EXPECT_THAT(closing_lines(), ElementsAre("keeping shared db file.", "exiting, ret=0"));
    EXPECT_TRUE(contents() == before);
    open();  // the slot that came free
    EXPECT_EQ(trelm_library_instance, 0);
    second.kill_and_wait();  // its slot stays marked
    EXPECT_EQ(flags_of(1), 5U);
}

TEST_F(SharedDatabase, FreesSlotsOfTheDeadWhenAllEightAreTaken) {
    const std::string before = old_file(kSize, {5, 4, 7, 5, 6, 5, 5, 5});
    write_file(before);
    open();
    EXPECT_EQ(trelm_library_instance, 0);
    EXPECT_THAT(log.take(),
                ::testing::Contains("trelm_open_database: INFO - Assigning lib instance number to 0."));
    const std::string after = contents();
    const uint32_t expected[] = {5, 0, 3, 1, 2, 1, 1, 1};
    for (size_t slot = 0; slot < 8; ++slot) EXPECT_EQ(flags_in(after, slot), expected[slot]) << slot;
    EXPECT_EQ(queue_of(after, 0), std::string(4116, '\0'));
    EXPECT_TRUE(after.substr(32 + 4116) == before.substr(32 + 4116));
    EXPECT_EQ(in_child([this] { return open_anew(), trelm_library_instance; }), 1);
}

TEST_F(SharedDatabase, GrowsAShorterFileAndLeavesALongerOne) {
    for (size_t size : {size_t{0}, size_t{3}, size_t{100}, kSize - 1, kSize, size_t{200000}}) {
        SCOPED_TRACE(size);
        std::string expected = old_file(size, {});
        if (size >= 8) expected = old_file(size, {0x4, 0xFFFFFFF2});
        const size_t slot = size >= 8 ? 1 : 0;
        write_file(expected);
        expected.resize(std::max(size, kSize));
        if (slot == 0) memset(expected.data(), 0, 4);  // what a file of 3 bytes marks as free
        if (slot == 0) write_file(expected.substr(0, size));
        expected.replace(4 * slot, 4, slot ? "\xF7\xFF\xFF\xFF" : std::string("\5\0\0\0", 4));
        expected.replace(32 + slot * 4116, 4116, 4116, '\0');
        log.take();
        open();
        EXPECT_EQ(trelm_library_instance, slot);
        EXPECT_TRUE(contents() == expected);
        const auto upgraded = ::testing::Contains("trelm_open_database: done upgrading shared data file.");
        if (size < kSize) {
            EXPECT_THAT(log.take(), upgraded);
        } else {
            EXPECT_THAT(log.take(), Not(upgraded));
        }
        close();
        EXPECT_FALSE(fs::exists(kFile));
    }
}

TEST_F(SharedDatabase, CountsTwoListedLinesAsOneProcess) {
    struct {
        unsigned lines;
        int count;
    } const cases[] = {{0, 0}, {1, 0}, {2, 1}, {5, 2}, {16, 8}, {600, 300 - 256}};
    for (const auto& c : cases) {
        set_listing(c.lines);
        EXPECT_EQ(trelm_get_total_libinst_count(), c.count) << c.lines;
    }
    set_lsof("exit 1");
    EXPECT_EQ(trelm_get_total_libinst_count(), 0);
    EXPECT_EQ(log.take_text(), "");
    EXPECT_EQ(in_child([] {
                  const rlimit none{3, 3};  // no descriptors for a pipe
                  setrlimit(RLIMIT_NOFILE, &none);
                  return trelm_get_total_libinst_count();
              }),
              0);
    EXPECT_THAT(log.take(), ElementsAre("trelm_get_total_libinst_count: popen failed."));
}

TEST_F(SharedDatabase, LeavesTheFileWhereItCannotTellOrRemoveOrHasNoSlot) {
    using ::testing::IsSupersetOf;
    open();
    set_listing(0);
    EXPECT_THAT(closing_lines(), IsSupersetOf(Lines{"delete_sem=1", "keeping shared db file."}));
    EXPECT_FALSE(has_set());
    set_listing(2);
    open();
    failing_call = "remove";
    EXPECT_THAT(closing_lines(), IsSupersetOf(Lines{"deleting shared db file.",
                                                    with("Unable to remove shared data file. errno=", EIO)}));
    EXPECT_EQ(contents(), std::string(kSize, '\0'));
    const int32_t fd = open();
    trelm_library_instance = 255;
    EXPECT_THAT(closing_lines(), ElementsAre("close db file.", "keeping shared db file.", "exiting, ret=0"));
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(trelm_shared_data, nullptr);
    EXPECT_EQ(flags_of(0), 5U);
    EXPECT_TRUE(has_set());
}

// ---- Failures of opening
// -------------------------------------------------------------------------------------------------

class FailingDatabase : public SharedDatabase {
  protected:
    // Fails to open with these errors, and leaves nothing behind but perhaps the file.
    void expect_failure(std::initializer_list<std::string> errors, std::string_view call = {}) {
        set_debug_flags(kErrorLines);
        log.take();
        const size_t descriptors = open_descriptors();
        int32_t fd = -77;
        failing_call = call;
        EXPECT_EQ(trelm_open_database(&fd), 1U);
        EXPECT_EQ(failing_call, "");
        EXPECT_EQ(fd, 0);
        Lines lines;
        for (const std::string& error : errors) lines.push_back("trelm_open_database: " + error);
        EXPECT_EQ(log.take(), lines);
        EXPECT_EQ(open_descriptors(), descriptors);
        EXPECT_EQ(trelm_db_sem_id, -1);
        EXPECT_FALSE(has_set());
        EXPECT_EQ(trelm_shm_fildes, -1);
        EXPECT_EQ(trelm_shared_data, nullptr);
        EXPECT_EQ(trelm_library_instance, 255);
    }
};

TEST_F(FailingDatabase, RefusesWhatIsNoRegularFile) {
    struct {
        const char* name;
        int error;
        std::function<void()> place;
    } const cases[] = {
        {"directory", EISDIR, [] { mkdir(kFile, 0755); }},
        {"link to a file", ELOOP, [] { EXPECT_EQ(symlink("/tmp/victim", kFile), 0); }},
        {"link to nothing", ELOOP, [] { EXPECT_EQ(symlink("/tmp/nothing", kFile), 0); }},
        {"file with another name", EEXIST, [] { EXPECT_EQ(link("/tmp/victim", kFile), 0); }},
        {"pipe", EEXIST, [] { mkfifo(kFile, 0666); }},
    };
    std::ofstream("/tmp/victim") << "mine";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        c.place();
        const fs::file_type type = fs::symlink_status(kFile).type();
        expect_failure({with("Unable to create shared data file. errno=", c.error)});
        EXPECT_EQ(fs::symlink_status(kFile).type(), type);
        EXPECT_EQ(fs::file_size("/tmp/victim"), 4U);
        EXPECT_FALSE(fs::exists("/tmp/nothing"));
        fs::remove(kFile);
    }
    fs::remove_all(host.root() / "tmp");
    expect_failure({with("Unable to create shared data file. errno=", ENOENT)});
}

// A fault that opening meets: what the file holds at first (-1: there is none) and afterwards, and what is
// said.
struct Fault {
    ssize_t old_size;
    std::string_view call;  // fails once
    size_t allocation;      // of this size fails
    rlim_t limit;           // of what a file may hold
    const char* text;
    int error;
    ssize_t size;
};

TEST_F(FailingDatabase, GivesUpAtTheFirstFaultAndLeavesWhatWasThere) {
    constexpr rlim_t kNone = RLIM_INFINITY;
    constexpr size_t kNever = 1;
    constexpr Fault faults[] = {
        {-1, "", kNever, 100000, "Unable to write completely to shared data file. errno=", EFBIG, -1},
        {1000, "", kNever, 100000, "Unable to upgrade shared data file. errno=", EFBIG, 100000},
        {-1, "fsync", kNever, kNone, "fsync failed. errno=", EIO, -1},
        {-1, "", kSize, kNone, "malloc tmp mem failed=", ENOMEM, 0},  // and yet this one is left
        {1000, "read", kNever, kNone, "Unable to read shared data file. errno=", EIO, 1000},
        {1000, "lseek", kNever, kNone, "Unable to seek to beginning of shared data file. errno=", EIO, 1000},
        {1000, "fsync", kNever, kNone, "fsync failed for existing file. errno=", EIO, kSize},
        {1000, "", 1000, kNone, "malloc failed=", ENOMEM, 1000},
        {1000, "", kSize, kNone, "Unable to alloc new shared data buf. errno=", ENOMEM, 1000},
        {kSize, "mmap", kNever, kNone, "mmap on existing cxmgmt_native.dat failed=", EIO, kSize},
    };
    signal(SIGXFSZ, SIG_IGN);
    rlimit limits;
    getrlimit(RLIMIT_FSIZE, &limits);
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.text);
        fs::remove(kFile);
        const std::string old = old_file(static_cast<size_t>(std::max<ssize_t>(fault.old_size, 0)), {});
        if (fault.old_size >= 0) write_file(old);
        const rlimit lower{fault.limit, limits.rlim_max};
        setrlimit(RLIMIT_FSIZE, fault.limit == kNone ? &limits : &lower);
        {
            const FailingAllocation fail(fault.allocation);
            expect_failure({with(fault.text, fault.error)}, fault.call);
        }
        setrlimit(RLIMIT_FSIZE, &limits);
        EXPECT_EQ(fs::exists(kFile) ? static_cast<ssize_t>(fs::file_size(kFile)) : -1, fault.size);
        EXPECT_EQ(contents().substr(0, old.size()), old);
    }
}

TEST_F(FailingDatabase, SaysSoWhereTheNewFileCannotEvenBeRemoved) {
    // The first failure makes the second: whoever is asked to remove the file finds it gone.
    signal(SIGXFSZ, [](int) { unlink(kFile); });
    const rlimit short_files{1000, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &short_files);
    expect_failure({with("Unable to write completely to shared data file. errno=", EFBIG),
                    with("Unable to remove shared data file. errno=", ENOENT)});
}

TEST_F(FailingDatabase, LeavesASemaphoreOfOthersAlone) {
    const int foreign = semget(kKey, 3, IPC_CREAT | 0644);
    set_debug_flags(kErrorLines);
    int32_t fd = -77;
    EXPECT_EQ(trelm_open_database(&fd), 1U);
    EXPECT_EQ(fd, 0);
    EXPECT_THAT(log.take_text(),
                StartsWith("trelm_open_database: WARNING - semget function not supported.\n"
                           "  Each adapter instance should be opened at most one time. errno="));
    EXPECT_EQ(trelm_db_sem_id, -1);
    EXPECT_EQ(semget(kKey, 0, 0), foreign);
    EXPECT_FALSE(fs::exists(kFile));
}

// ---- Several processes
// ----------------------------------------------------------------------------------------------------

TEST_F(SharedDatabase, GetsTheSemaphoreAnewWhereItIsTakenAwayMeanwhile) {
    const int old_set = semget(kKey, 1, IPC_CREAT | 0644);
    semctl(old_set, 0, SETVAL, 1);
    trelm_sem_wait(old_set);
    Child newcomer([this] { return open_anew(), 40 + trelm_library_instance; });
    EXPECT_TRUE(eventually([&] { return semctl(old_set, 0, GETNCNT) == 1; }));
    semctl(old_set, 0, IPC_RMID);
    EXPECT_EQ(newcomer.wait(), 40);
    EXPECT_TRUE(has_set());
    EXPECT_EQ(semctl(semget(kKey, 0, 0), 0, GETVAL), 1);
}

TEST_F(SharedDatabase, LeavesTheSemaphoreToOneWhoWaitsAtTheEnd) {
    const std::string root = host.root().string();
    set_lsof("touch " + root + "/counting; until [ -e " + root +
             "/go ]; do sleep 0.01; done; echo libtrelm; echo libtrelm");
    open();
    const int set = trelm_db_sem_id;
    Child leaver([this] {
        const Lines lines = closing_lines();
        EXPECT_THAT(lines, ::testing::IsSupersetOf(
                               {"delete_sem=1", "keeping semaphore.", "deleting shared db file."}));
        return 0;
    });
    EXPECT_TRUE(eventually([&] { return fs::exists(root + "/counting"); }));
    Child newcomer([this, set] {
        open_anew();
        EXPECT_EQ(trelm_db_sem_id, set);
        EXPECT_EQ(contents().size(), kSize);  // a file of its own time
        EXPECT_EQ(flags_of(0), 5U);
        return 40 + trelm_library_instance;
    });
    EXPECT_TRUE(eventually([&] { return semctl(set, 0, GETNCNT) == 1; }));
    std::ofstream(root + "/go");
    EXPECT_EQ(leaver.wait(), 0);
    EXPECT_EQ(newcomer.wait(), 40);
    EXPECT_EQ(semctl(set, 0, GETVAL), 1);
}

TEST_F(SharedDatabase, HasNothingLeftWhenManyHaveComeAndGone) {
    set_debug_flags(kSilent);
    // A listing that is never late: who has a slot is loaded.
    set_lsof("taken=$(od -An -v -tu4 -w4 -N32 " + host.root().string() +
             "/tmp/trelm_shared.dat | grep -c '[4-7]$'); yes libtrelm | head -n $((2 * taken))");
    void* const memory = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* const owners = new (memory) std::atomic<int>[8] {};
    Gate gate;
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 8; ++i) {
        children.push_back(std::make_unique<Child>([&] {
            gate.pass();
            for (int round = 0; round < 6; ++round) {
                open();
                std::atomic<int>& owner = owners[trelm_library_instance];
                EXPECT_EQ(owner.fetch_add(1), 0);
                sched_yield();
                EXPECT_EQ(owner.fetch_sub(1), 1);
                close();
            }
            return 0;
        }));
    }
    gate.open();
    for (const auto& child : children) EXPECT_EQ(child->wait(), 0);
    munmap(memory, 4096);
    EXPECT_FALSE(fs::exists(kFile));
    EXPECT_FALSE(has_set());
}

}  // namespace
