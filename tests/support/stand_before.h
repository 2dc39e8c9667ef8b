// stand_before.h - definitions of libc's functions in a test executable that come before everyone else's, and
// the question whether it is the library that calls. With them a test makes a call of the library's fail, or
// ends the process at it, in the very binary that ships. Every other caller's goes through untouched: to the
// simulated host's definition, and from there to libc's.
#pragma once

#include <dlfcn.h>
#include <link.h>

#include <cstdint>
#include <cstring>

namespace trelm::test {

// Where the library's code lies; nowhere before find_library.
inline constinit uintptr_t library_begin = 0;
inline constinit uintptr_t library_end = 0;

// To be called once the library is in the process.
inline bool find_library() {
    const auto look = [](dl_phdr_info* object, size_t, void*) {
        if (strstr(object->dlpi_name, "/libtrelm.so") == nullptr) return 0;
        for (int i = 0; i < object->dlpi_phnum; ++i) {
            const ElfW(Phdr)& segment = object->dlpi_phdr[i];
            if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
            library_begin = object->dlpi_addr + segment.p_vaddr;
            library_end = library_begin + segment.p_memsz;
        }
        return 1;
    };
    return dl_iterate_phdr(look, nullptr) != 0;
}

inline bool in_library(const void* code) {
    const auto address = reinterpret_cast<uintptr_t>(code);
    return address >= library_begin && address < library_end;
}

}  // namespace trelm::test

// Begins the definition of a function that stands before the others of its name; NEXT_OF(name) is the next of
// them. libc's own declarations carry attributes that are not true of a stand-in, so it has a C++ name of its
// own.
#define STANDS_BEFORE(result, name, parameters)                                                    \
    extern "C" [[gnu::visibility("default")]] result before_##name parameters __asm__(#name);      \
    [[maybe_unused]] static auto next_##name() {                                                   \
        static auto* const next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
        return next;                                                                               \
    }                                                                                              \
    result before_##name parameters

#define NEXT_OF(name) next_##name()

// Whether the function that is being defined was called by the library. To be used in its body itself.
#define CALLED_BY_LIBRARY() (::trelm::test::in_library(__builtin_return_address(0)))
