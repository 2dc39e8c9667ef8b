#include "simulator_paths.h"

#include <dlfcn.h>

#include <system_error>

#include "own_calls.h"

namespace hostsim {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLauncher = "trelm-hostsim";
constexpr const char* kPreload = "libtrelm-hostsim.so";

// `name` in the first directory that has it. Both are relative to the directory of this object.
fs::path beside(const char* installed, const char* built, const char* name) {
    const fs::path here = own_object().parent_path();
    std::error_code error;
    for (const char* directory : {built, installed}) {
        fs::path found = fs::weakly_canonical(here / directory / name, error);
        if (!error && fs::exists(found, error)) return found;
    }
    return {};
}

}  // namespace

fs::path own_object() {
    const OwnCalls own;
    std::error_code error;
    Dl_info info{};
    const bool known =
        dladdr(reinterpret_cast<const void*>(&own_object), &info) != 0 && info.dli_fname != nullptr;
    // For the program itself the loader returns argv[0].
    const bool is_library =
        known && fs::path(info.dli_fname).filename().string().find(".so") != std::string::npos;
    return fs::canonical(is_library ? info.dli_fname : "/proc/self/exe", error);
}

fs::path launcher_path() {
    const OwnCalls own;
    return own_object().filename() == kLauncher ? own_object()
                                                : beside(HOSTSIM_BIN_FROM_LIB, "../bin", kLauncher);
}

fs::path preload_path() {
    const OwnCalls own;
    return own_object().filename() == kLauncher ? beside(HOSTSIM_LIB_FROM_BIN, "../lib", kPreload)
                                                : own_object();
}

}  // namespace hostsim
