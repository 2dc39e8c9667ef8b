// trelm_dbg.h - the debug log: trace and error lines on standard error and, if wanted, in a file that all
// processes share. The category is tested before a line is composed, so a disabled line costs one test.
#pragma once

#include <cstdint>
#include <cstdio>

#include "semaphore_set.h"
#include "trelm_exported.h"

extern "C" {

extern TRELM_EXPORTED uint32_t trelm_debug;  // flags, read from TRELM_API_DEBUG
extern TRELM_EXPORTED char
    trelmlog_path[512];                   // empty until first needed; a path set by the host program is kept
extern TRELM_EXPORTED FILE* trelmdbg_fp;  // open while a line is written

extern TRELM_EXPORTED int32_t trelm_dbg_sem_id;  // -1 none
extern TRELM_EXPORTED key_t trelm_dbg_semkey;

// Reads TRELM_API_DEBUG into trelm_debug and gets the log's semaphore when output is first switched on.
TRELM_EXPORTED void trelm_set_debug_level(void);

// `radix` 0: no number, else 10 or 16. `newline` 1 ends the line. `func_name` may be null.
TRELM_EXPORTED void trelm_dbg_print(const char* func_name, const char* string, uint64_t number, uint8_t radix,
                                    uint8_t newline);
// Dumps `count` elements of `wd_size` bits (8, 16, 32 or 64) in hexadecimal.
TRELM_EXPORTED void trelm_dbg_dump(const char* string, const uint8_t* buffer, uint8_t wd_size,
                                   uint64_t count);
// The log stream, opened if needed; null if it cannot be opened.
TRELM_EXPORTED FILE* trelm_dbg_get_fptr(void);

}  // extern "C"

namespace trelm::detail {

enum DebugFlag : uint32_t { kLogToFile = 0x1, kTrace = 0x2, kError = 0x4 };

// The benchmarks compare with a library built without a log, to measure the cost of a disabled log.
#ifdef TRELM_WITHOUT_LOG
inline constexpr bool kHasLog = false;
#else
inline constexpr bool kHasLog = true;
#endif

// A piece of a log line: a text and an optional number after it.
struct Piece {
    constexpr Piece(const char* words) : text(words) {}
    // Numbers are written unsigned in 64 bits, so a negative one shows as its two's complement.
    template <class Integer>
    constexpr Piece(const char* words, Integer value, uint8_t base = 10)
        : text(words), number(static_cast<uint64_t>(value)), radix(base) {}

    const char* text;
    uint64_t number = 0;
    uint8_t radix = 0;
};

// Loads and opens may set the semaphore while other threads log.
inline int32_t debug_semaphore() { return __atomic_load_n(&trelm_dbg_sem_id, __ATOMIC_RELAXED); }
extern KeptHold kept_log_hold;

// Writes one line composed of the pieces.
void write_line(const char* func_name, const Piece* pieces, size_t count);

// Loads and opens may set the flags while other threads read them.
inline uint32_t debug_flags() { return __atomic_load_n(&trelm_debug, __ATOMIC_RELAXED); }
inline bool logs(DebugFlag category) { return kHasLog && __builtin_expect(debug_flags() & category, 0); }

template <class T, class>
using For = T;

// Out of line, with the pieces passed as separate arguments: a Piece is too large for registers, so every
// call site would have to build it on the stack even when the log is off.
template <class... Pieces>
struct LineOf {
    [[gnu::cold, gnu::noinline]] static void write(const char* func_name, For<const char*, Pieces>... texts,
                                                   For<uint64_t, Pieces>... numbers,
                                                   For<uint8_t, Pieces>... radixes) {
        const Piece line[] = {Piece(texts, numbers, radixes)...};
        write_line(func_name, line, sizeof...(Pieces));
    }
};

// Each takes the pieces of a line: Piece objects or plain texts.
template <class... Pieces>
[[gnu::always_inline]] inline void log(DebugFlag category, const char* func_name, const Pieces&... pieces) {
    if (!logs(category)) return;
    LineOf<For<Piece, Pieces>...>::write(func_name, Piece(pieces).text..., Piece(pieces).number...,
                                         Piece(pieces).radix...);
}
template <class... Pieces>
[[gnu::always_inline]] inline void trace(const char* func_name, const Pieces&... pieces) {
    log(kTrace, func_name, pieces...);
}
template <class... Pieces>
[[gnu::always_inline]] inline void error(const char* func_name, const Pieces&... pieces) {
    log(kError, func_name, pieces...);
}

}  // namespace trelm::detail
