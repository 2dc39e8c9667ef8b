#include "user.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "crowd.h"
#include "trelm_mgmt.h"

namespace trelm::soak {
namespace {

// The library, loaded by this process for itself.
struct Library {
    explicit Library(void* object)
        : load(find<decltype(&TRELM_LoadLibrary)>(object, "TRELM_LoadLibrary")),
          free(find<decltype(&TRELM_FreeLibrary)>(object, "TRELM_FreeLibrary")),
          open(find<decltype(&TRELM_OpenAdapter)>(object, "TRELM_OpenAdapter")),
          close(find<decltype(&TRELM_CloseAdapter)>(object, "TRELM_CloseAdapter")),
          ask(find<decltype(&TRELM_GetVNPortInfo)>(object, "TRELM_GetVNPortInfo")),
          instance(find<const uint8_t*>(object, "trelm_library_instance")) {}

    template <typename Pointer>
    static Pointer find(void* object, const char* name) {
        return reinterpret_cast<Pointer>(dlsym(object, name));
    }

    decltype(&TRELM_LoadLibrary) load;
    decltype(&TRELM_FreeLibrary) free;
    decltype(&TRELM_OpenAdapter) open;
    decltype(&TRELM_CloseAdapter) close;
    decltype(&TRELM_GetVNPortInfo) ask;
    const uint8_t* instance;
};

Library load_library(uint32_t log_flags) {
    setenv("TRELM_API_DEBUG", std::to_string(log_flags).c_str(), 1);
    void* const object = dlopen(TRELM_LIBRARY, RTLD_NOW);
    if (object == nullptr || freopen("/dev/null", "w", stderr) == nullptr) {
        printf("soak: %s\n", dlerror());
        fflush(stdout);
        _exit(1);
    }
    return Library(object);
}

void expect(const User& user, const char* call, uint32_t code) {
    if (code != TRELM_STATUS_OK) fail("process %u: %s returned 0x%x", user.number, call, code);
}

void work(const User& user, const Library& library) {
    uint32_t handle = 0;
    expect(user, "TRELM_OpenAdapter", library.open(0, &handle));
    TRELM_VNPORT_INFO info = {};
    expect(user, "TRELM_GetVNPortInfo", library.ask(handle, 0, &info));
    expect(user, "TRELM_CloseAdapter", library.close(handle));
}

}  // namespace

void use_library(const User& user) {
    const Library library = load_library(user.log_flags);
    join_crowd(user, library.instance);
    for (unsigned round = 0; round < user.rounds; ++round) {
        expect(user, "TRELM_LoadLibrary", library.load());
        work(user, library);
        expect(user, "TRELM_FreeLibrary", library.free());
        ++crowd->rounds;
    }
    _exit(0);
}

void load_once(bool refused) {
    const Library library = load_library(0);
    const bool was_refused = library.load() != TRELM_STATUS_OK;
    struct stat status {};
    const bool sound = was_refused || (stat(kSharedFile, &status) == 0 && status.st_size >= 163840);
    library.free();
    _exit(was_refused == refused && sound ? 0 : 1);
}

}  // namespace trelm::soak
