// host_program_test.cpp - what the library does not disturb in its host program: standard descriptors,
// signals, and the state of the parent after a fork.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/sem.h>

#include <climits>

#include "shared_db.h"
#include "support/child.h"
#include "support/libc_replacements.h"
#include "support/loaded_host.h"
#include "support/log_capture.h"

static int lowest = INT_MAX;  // descriptor that the library used, except standard error

#define SEEN(result, name, parameters, arguments, descriptor)                \
    REPLACES_LIBC(result, name, parameters) {                                \
        if (CALLED_BY_LIBRARY()) lowest = std::min<int>(lowest, descriptor); \
        return NEXT_OF(name) arguments;                                      \
    }
SEEN(ssize_t, read, (int fd, void* to, size_t count), (fd, to, count), fd)
SEEN(ssize_t, write, (int fd, const void* from, size_t count), (fd, from, count), fd)
SEEN(int, ioctl, (int fd, unsigned long request, void* block), (fd, request, block), fd)
SEEN(int, flock, (int fd, int operation), (fd, operation), fd)
SEEN(int, fstat, (int fd, struct stat* status), (fd, status), fd)
SEEN(dirent*, readdir, (DIR * directory), (directory), dirfd(directory))
SEEN(char*, fgets, (char* text, int size, FILE* file), (text, size, file), fileno(file))
SEEN(int, fputs, (const char* text, FILE* file), (text, file), file == stderr ? INT_MAX : fileno(file))

namespace {

using namespace trelm::test;

constexpr uint32_t kToFile = 7;

TEST(StandardDescriptors, OfAProgramThatClosedThemAreNotUsed) {
    const hostsim::Host host(two_port_host(hostsim::DriverKind::legacy));
    ASSERT_TRUE(find_library());
    EXPECT_EQ(in_child([] {
                  for (const int fd : {0, 1, 2}) close(fd);
                  set_debug_flags(kToFile);
                  uint32_t handle = 0;
                  if (TRELM_LoadLibrary() + TRELM_OpenAdapter(0, &handle) != 0) return -1;
                  const int listed = trelm_get_total_libinst_count();  // this process and its parent
                  if (TRELM_FreeLibrary() != 0) return -1;
                  return lowest > 2 && listed == 2 ? 0 : 1;
              }),
              0);
}

TEST(Signals, OfWritesThatFailDoNotReachTheProgram) {
    const hostsim::Host host(hostsim::hosts::kron_ports(1));
    EXPECT_EQ(in_child([] {
                  sigset_t before{}, after{}, pending{};
                  sigemptyset(&before);
                  sigaddset(&before, SIGUSR1);
                  sigprocmask(SIG_SETMASK, &before, nullptr);
                  int ends[2];
                  if (pipe(ends) != 0 || dup2(ends[1], 2) != 2) return 1;
                  close(ends[0]);
                  set_debug_flags(kToFile);
                  trelm_dbg_print(nullptr, "a line for a broken pipe", 0, 0, 1);
                  const rlimit limit{1000, 1000};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  for (int line = 0; line < 100; ++line) trelm_dbg_print(nullptr, "a line too many", 0, 0, 1);
                  EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
                  trelm_dbg_dump("a dump", nullptr, 12, 0);
                  sigprocmask(SIG_SETMASK, nullptr, &after);
                  sigpending(&pending);
                  EXPECT_EQ(memcmp(&before, &after, sizeof before), 0);
                  EXPECT_TRUE(sigisemptyset(&pending));
                  return 0;
              }),
              0);
    EXPECT_EQ(std::filesystem::file_size("/var/tmp/libtrelm.log"), 1000U);
}

TEST(ForkedChild, OwnsNothingUntilItLoadsTheLibraryItself) {
    const LoadedLibrary library(two_port_host(hostsim::DriverKind::legacy));
    const auto parent_is_as_before = [slots = trelm_shared_data->libinst_flags] {
        EXPECT_EQ(slots[0], 5U);
        EXPECT_EQ(slots[1], 0U);
        EXPECT_EQ(semctl(trelm_db_sem_id, 0, GETVAL), 1);
        EXPECT_TRUE(std::filesystem::exists("/tmp/trelm_shared.dat"));
    };
    EXPECT_EQ(in_child([] { return static_cast<int>(TRELM_FreeLibrary()); }), 0);
    parent_is_as_before();
    EXPECT_EQ(in_child([]() -> int { exit(0); }), 0);
    parent_is_as_before();
    EXPECT_EQ(in_child([] {
                  uint32_t count = 0, handle = 0;
                  EXPECT_EQ(TRELM_LoadLibrary() + TRELM_GetPortCount(&count), 0U);
                  EXPECT_EQ(TRELM_OpenAdapter(0, &handle) + TRELM_LoadLibrary(), 0U);
                  EXPECT_EQ(TRELM_CloseAdapter(handle), 0U) << "the second load loaded again";
                  EXPECT_EQ(count, 2U);
                  EXPECT_EQ(trelm_library_instance, 1);
                  EXPECT_EQ(trelm_shared_data->libinst_flags[1], 5U);
                  return static_cast<int>(TRELM_FreeLibrary());
              }),
              0);
    parent_is_as_before();
}

}  // namespace
