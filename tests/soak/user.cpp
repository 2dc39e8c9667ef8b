// user.cpp - a process that uses the library.
#include <dlfcn.h>
#include <sys/stat.h>

#include "crowd.h"
#include "trelm_mgmt.h"

namespace trelm::soak {
namespace {

// The library, loaded by this process itself.
void* load_library(uint32_t log_flags) {
    setenv("TRELM_API_DEBUG", std::to_string(log_flags).c_str(), 1);
    void* const library = dlopen(TRELM_LIBRARY, RTLD_NOW);
    if (library != nullptr && freopen("/dev/null", "w", stderr) != nullptr) return library;
    printf("soak: %s\n", dlerror());
    fflush(stdout);
    _exit(1);
}
#define FUNCTION(library, name) reinterpret_cast<decltype(&name)>(dlsym(library, #name))

}  // namespace

void use_library(const User& user) {
    void* const library = load_library(user.log_flags);
    join_crowd(user, static_cast<const uint8_t*>(dlsym(library, "trelm_library_instance")));
    const auto expect = [&user](const char* call, uint32_t code) {
        if (code != TRELM_STATUS_OK) fail("process {}: {} returned {:#x}", user.number, call, code);
    };
#define EXPECT_OK(name, ...) expect(#name, FUNCTION(library, name)(__VA_ARGS__))
    for (unsigned round = 0; round < user.rounds; ++round) {
        uint32_t handle = 0;
        TRELM_VNPORT_INFO info = {};
        EXPECT_OK(TRELM_LoadLibrary);
        EXPECT_OK(TRELM_OpenAdapter, 0, &handle);
        EXPECT_OK(TRELM_GetVNPortInfo, handle, 0, &info);
        EXPECT_OK(TRELM_CloseAdapter, handle);
        EXPECT_OK(TRELM_FreeLibrary);
        ++crowd->rounds;
    }
    _exit(0);
}

void load_once(bool refused) {
    void* const library = load_library(0);
    const bool was_refused = FUNCTION(library, TRELM_LoadLibrary)() != TRELM_STATUS_OK;
    struct stat status {};
    const bool sound = was_refused || (stat(kSharedFile, &status) == 0 && status.st_size >= 163840);
    FUNCTION(library, TRELM_FreeLibrary)();
    _exit(was_refused == refused && sound ? 0 : 1);
}

}  // namespace trelm::soak
