// abuse.cpp - hostile objects in place of the library's shared file and semaphores.
#include "crowd.h"

#include <sys/sem.h>

#include <filesystem>
#include <fstream>

#include "../support/child.h"

namespace trelm::soak {
namespace {

namespace fs = std::filesystem;

constexpr char kVictim[] = "/tmp/victim";
constexpr char kPrecious[] = "not the library's to touch";

void write_shared_file(size_t size, char byte) {
    std::ofstream(kSharedFile, std::ios::binary) << std::string(size, byte);
}
int set_of(int semaphores, int flags = 0) { return semget(kDatabaseKey, semaphores, flags | 0644); }
int make_set(int semaphores) { return set_of(semaphores, IPC_CREAT | IPC_EXCL); }

bool nothing_more() { return true; }
bool victim_is_whole() {
    std::ifstream file(kVictim, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {}) == kPrecious;
}

struct Abuse {
    const char* what;
    void (*prepare)();
    bool refused;     // the load fails clearly; otherwise the library recovers
    bool (*holds)();  // checked afterwards
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
    {"a file with another name", [] { fs::create_hard_link(kVictim, kSharedFile); }, false, victim_is_whole},
    {"a directory", [] { fs::create_directory(kSharedFile); }, true, nothing_more},
    {"a pipe without another end", [] { mkfifo(kSharedFile, 0644); }, true, nothing_more},
    {"a set of several semaphores", [] { semctl(make_set(3), 0, SETVAL, 2); }, true,
     [] { return semctl(set_of(3), 0, GETVAL) == 2; }},
    {"a set that would let several in", [] { semctl(make_set(1), 0, SETVAL, 5); }, false, nothing_more},
    {"a set that never got its first value", [] { make_set(1); }, false, nothing_more},
};

bool load_ends_well(bool refused) {
    return test::in_child([refused]() -> int { load_once(refused); }) == 0;
}

}  // namespace

unsigned run_abuses() {
    for (const Abuse& abuse : kAbuses) {
        std::ofstream(kVictim, std::ios::binary) << kPrecious;
        abuse.prepare();
        if (!load_ends_well(abuse.refused))
            fail("{} was not {}", abuse.what, abuse.refused ? "refused" : "recovered from");
        if (!abuse.holds()) fail("{} did not stay as it was", abuse.what);
        if (const int set = set_of(0); set >= 0) semctl(set, 0, IPC_RMID);
        for (const char* path : {kSharedFile, kVictim}) fs::remove(path);
        if (!load_ends_well(false)) fail("after {} the library did not load", abuse.what);
    }
    return std::size(kAbuses);
}

}  // namespace trelm::soak
