// libc_replacements.h - definitions in a test executable that replace functions of libc, and a test for calls
// from the library. With them a test makes a call of the unmodified library fail, or ends the process there.
// Calls of all others pass on to the simulated host and from there to libc.
#pragma once

#include <dlfcn.h>
#include <link.h>

#include <cstdint>
#include <cstring>

namespace trelm::test {

// The address range of the code of the library; empty before find_library.
inline constinit uintptr_t library_begin = 0;
inline constinit uintptr_t library_end = 0;

// Call it when the library is in the process.
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

// Begins the definition of a replacement function. NEXT_OF(name) is the next definition of that name. The
// function has a C++ name of its own, because the declarations of libc carry attributes that do not hold for
// the replacement.
// NOLINTBEGIN(bugprone-macro-parentheses): a type cannot be in parentheses
#define REPLACES_LIBC(result, name, parameters)                                                    \
    extern "C" [[gnu::visibility("default")]] result before_##name parameters __asm__(#name);      \
    [[maybe_unused]] static auto next_##name() {                                                   \
        static auto* const next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
        return next;                                                                               \
    }                                                                                              \
    result before_##name parameters
// NOLINTEND(bugprone-macro-parentheses)

#define NEXT_OF(name) next_##name()

// Whether the library called the replacement. Use it directly in the body of the replacement.
#define CALLED_BY_LIBRARY() (::trelm::test::in_library(__builtin_return_address(0)))
