#include "abuse.h"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "crowd.h"
#include "user.h"

namespace trelm::soak {
namespace {

namespace fs = std::filesystem;

constexpr char kVictim[] = "/tmp/victim";
constexpr char kPrecious[] = "not the library's to touch";

void write_file(const char* path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }
void write_shared_file(size_t size, char byte) { write_file(kSharedFile, std::string(size, byte)); }

std::string contents(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void make_set(int semaphores, int value) {
    const int set = semget(kDatabaseKey, semaphores, IPC_CREAT | IPC_EXCL | 0644);
    if (value >= 0) semctl(set, 0, SETVAL, value);
}
void remove_set() {
    if (const int set = semget(kDatabaseKey, 0, 0); set >= 0) semctl(set, 0, IPC_RMID);
}

bool nothing_more() { return true; }
bool victim_is_whole() { return contents(kVictim) == kPrecious; }
bool set_is_whole() {
    const int set = semget(kDatabaseKey, 3, 0);
    return set >= 0 && semctl(set, 0, GETVAL) == 2;
}

struct Abuse {
    const char* what;
    void (*prepare)();
    bool refused;     // a clear failure; otherwise the library recovers
    bool (*holds)();  // afterwards
};

constexpr Abuse kAbuses[] = {
    {"an empty file", [] { write_shared_file(0, 0); }, false, nothing_more},
    {"a truncated file", [] { write_shared_file(1000, 0x55); }, false, nothing_more},
    {"a file that is one byte short", [] { write_shared_file(163839, 0x55); }, false, nothing_more},
    {"a file that is too long", [] { write_shared_file(200000, 0x55); }, false, nothing_more},
    {"a stale file with every slot taken", [] { write_shared_file(163840, 0x7F); }, false, nothing_more},
    {"a symbolic link", [] { fs::create_symlink(kVictim, kSharedFile); }, true, victim_is_whole},
    {"a symbolic link to nothing", [] { fs::create_symlink("/tmp/nothing", kSharedFile); }, true,
     [] { return !fs::exists("/tmp/nothing"); }},
    {"a file with another name", [] { fs::create_hard_link(kVictim, kSharedFile); }, true, victim_is_whole},
    {"a directory", [] { fs::create_directory(kSharedFile); }, true, nothing_more},
    {"a pipe without another end", [] { mkfifo(kSharedFile, 0644); }, true, nothing_more},
    {"a set of several semaphores", [] { make_set(3, 2); }, true, set_is_whole},
    {"a set that would let several in", [] { make_set(1, 5); }, false, nothing_more},
    {"a set that never got its first value", [] { make_set(1, -1); }, false, nothing_more},
};

int status_of_load(bool refused) {
    const pid_t id = fork();
    if (id == 0) {
        alarm(60);  // ends the process
        load_once(refused);
    }
    int status = 0;
    while (waitpid(id, &status, 0) != id) {
    }
    return status;
}

void run(const Abuse& abuse) {
    write_file(kVictim, kPrecious);
    abuse.prepare();
    if (status_of_load(abuse.refused) != 0)
        fail("%s was not %s", abuse.what, abuse.refused ? "refused" : "recovered from");
    if (!abuse.holds()) fail("%s did not stay as it was", abuse.what);
    remove_set();
    fs::remove(kSharedFile);
    fs::remove(kVictim);
    if (status_of_load(false) != 0) fail("after %s the library did not load", abuse.what);
}

}  // namespace

unsigned run_abuses() {
    for (const Abuse& abuse : kAbuses) run(abuse);
    return sizeof kAbuses / sizeof *kAbuses;
}

}  // namespace trelm::soak
