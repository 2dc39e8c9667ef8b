// The host around the drivers.

#include "host.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "shared_db.h"
#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_mgmt.h"

namespace bench {
namespace {

constexpr char kLinkStates[] = "/proc/scsi/dorfc/";
constexpr char kNode[] = "/dev/char/vmkdriver/dorfc";
constexpr char kLinkStateText[] =
    "Link-state of the ports\n\nSCSI Device Information:\nWWPN: 200102ca1e000000\nState: LPORT_ST_READY\n";

class Directory {
  public:
    Directory() {
        std::string pattern =
            (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/bench.XXXXXX");
        if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a directory like " + pattern);
        path_ = pattern;
        std::filesystem::create_directories(path_ + "/links");
        std::ofstream(path_ + "/links/0") << kLinkStateText;
        std::ofstream(path_ + "/listing") << "2\n";  // only this process, which has two lines in the listing
    }
    ~Directory() {
        if (getpid() != owner_) return;
        std::filesystem::remove_all(path_);
        if (trelm_dbg_sem_id != -1) semctl(trelm_dbg_sem_id, 0, IPC_RMID);
    }
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
    pid_t owner_ = getpid();
};

std::string real_path(const char* path) {
    if (strcmp(path, trelm_db_fname) == 0) return directory() + "/shared";
    if (strcmp(path, "/tmp") == 0) return directory();
    if (strncmp(path, kLinkStates, sizeof kLinkStates - 1) == 0)
        return directory() + "/links/" + (path + sizeof kLinkStates - 1);
    return path;
}

// Whether a path belongs to the host. The test is as cheap as possible.
bool is_hosts(const char* path) {
    return strcmp(path, trelm_db_fname) == 0 || strcmp(path, "/tmp") == 0 ||
           strncmp(path, kLinkStates, sizeof kLinkStates - 1) == 0;
}

template <class Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Keys of this process, so that it never uses semaphore sets of the machine or of another run.
key_t own_key(key_t key) { return static_cast<key_t>(getpid() << 12 | (key & 0xFFF)); }

}  // namespace

const std::string& directory() {
    static const Directory own;
    return own.path();
}

void expect_ok(uint32_t status, const char* what) {
    if (status == 0) return;
    char text[160];
    snprintf(text, sizeof text, "%s returned 0x%X on the benchmark's host; nothing can be measured", what,
             status);
    throw std::runtime_error(text);
}

LoadedLibrary::LoadedLibrary(const Ports& ports) {
    serve(ports);
    expect_ok(TRELM_LoadLibrary(), "TRELM_LoadLibrary");
    expect_ok(TRELM_OpenAdapter(0, &handle_), "TRELM_OpenAdapter");
}

LoadedLibrary::~LoadedLibrary() { TRELM_FreeLibrary(); }

namespace {

void operate(int set, short by) {
    sembuf step = {0, by, SEM_UNDO};
    semop(set, &step, 1);
}

int bare_semaphore() {
    const int set = semget(trelm_db_semkey, 1, IPC_CREAT | IPC_EXCL | 0644);
    const int lock = open("/tmp", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    flock(lock, LOCK_EX | LOCK_NB);
    semctl(set, 0, SETVAL, 1);
    close(lock);
    return set;
}

}  // namespace

void bare_database_calls() {
    static const std::vector<uint8_t> zeros(sizeof(trelm_shared_db));
    const int set = bare_semaphore();
    operate(set, -1);
    const int fd = open(trelm_db_fname, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    const bool whole = write(fd, zeros.data(), zeros.size()) == static_cast<ssize_t>(zeros.size());
    if (!whole) throw std::runtime_error("cannot write " + directory() + "/shared; is the file system full?");
    fsync(fd);
    void* mapping = mmap(nullptr, zeros.size(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    memset(mapping, 0, 2 * 4096);  // the slot's flags and its queue
    msync(mapping, zeros.size(), MS_SYNC);
    operate(set, 1);

    operate(set, -1);
    msync(mapping, zeros.size(), MS_SYNC);
    remove(trelm_db_fname);
    semctl(set, 0, IPC_RMID);
    munmap(mapping, zeros.size());
    close(fd);
}

void bare_link_state_calls() {
    DIR* listing = opendir(kLinkStates);
    while (readdir(listing)) {
    }
    closedir(listing);
    char text[512];
    const int fd = open((std::string(kLinkStates) + "0").c_str(), O_RDONLY | O_CLOEXEC);
    while (read(fd, text, sizeof text) > 0) {
    }
    close(fd);
}

}  // namespace bench

// ---- Functions that replace those of libc

using namespace bench;

extern "C" {

int uname(utsname* name) noexcept {
    const auto result = static_cast<int>(syscall(SYS_uname, name));
    memcpy(name->sysname, "VMkernel", sizeof "VMkernel");
    return result;
}

uid_t geteuid() noexcept { return 0; }

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = flags & O_CREAT ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    // Any character device can replace the node of the driver: its requests never reach the device.
    if (strcmp(path, kNode) == 0) path = "/dev/null";
    const bool hosts = is_hosts(path);
    return static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, hosts ? real_path(path).c_str() : path, flags, mode));
}

DIR* opendir(const char* path) {
    static auto* const real = next<DIR*(const char*)>("opendir");
    return is_hosts(path) ? real(real_path(path).c_str()) : real(path);
}

FILE* fopen(const char* path, const char* mode) {
    static auto* const real = next<FILE*(const char*, const char*)>("fopen");
    return is_hosts(path) ? real(real_path(path).c_str(), mode) : real(path, mode);
}

int remove(const char* path) noexcept {
    static auto* const real = next<int(const char*)>("remove");
    return is_hosts(path) ? real(real_path(path).c_str()) : real(path);
}

int semget(key_t key, int count, int flags) noexcept {
    return static_cast<int>(syscall(SYS_semget, own_key(key), count, flags));
}

// Starting a shell takes longer than everything else and depends only on the machine, so it is left out.
FILE* popen(const char*, const char* mode) { return fopen((directory() + "/listing").c_str(), mode); }
int pclose(FILE* stream) { return fclose(stream); }

void sync() noexcept {}

}  // extern "C"
