// The debug log. Each thread collects a line in a buffer of its own until the line is complete or the buffer
// is full. A mutex and a System V semaphore serialise print calls, so lines of several threads and processes
// never mix.

#include "trelm_dbg.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "trelm_system.h"

uint32_t trelm_debug = 0;
char trelmlog_path[512] = "";
FILE* trelmdbg_fp = nullptr;
int32_t trelm_dbg_sem_id = -1;
key_t trelm_dbg_semkey = 0x373;

trelm::detail::KeptHold trelm::detail::kept_log_hold;

namespace {

constexpr char kDefaultLogPath[] = "/var/tmp/libtrelm.log";
constexpr size_t kScratch = 256;

struct LineBuffer {
    char text[256];
    uint8_t fill;
};
constexpr uint8_t kLineRoom = 250;  // a buffer filled beyond this is written out

// Initial-exec: any other model would make the dynamic linker one more library that this one needs. It takes
// 257 bytes of the space that every process keeps for libraries loaded later.
thread_local LineBuffer line __attribute__((tls_model("initial-exec")));

pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

// A child that is forked while another thread writes a line must not inherit a locked mutex.
void lock() { pthread_mutex_lock(&mutex); }
void unlock() { pthread_mutex_unlock(&mutex); }
__attribute__((constructor)) void keep_whole_over_fork() { pthread_atfork(lock, unlock, unlock); }

// Holds the log for one print or dump call. If the semaphore fails, output goes on without it.
class Turn {
  public:
    Turn() {
        lock();
        semaphore_ = trelm::detail::debug_semaphore();
        held_ = trelm::detail::sem_take(semaphore_, trelm::detail::kept_log_hold) == 0;
    }
    ~Turn() {
        if (held_) trelm::detail::sem_release(semaphore_, trelm::detail::kept_log_hold);
        unlock();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

  private:
    trelm::detail::ErrnoKeeper keep_;
    trelm::detail::NoCancellation whole_;
    int32_t semaphore_;
    bool held_;
};

// Anyone can create something at the path. Only a regular file with one name that root or the caller owns is
// used.
FILE* open_log(const char* path) {
    trelm::detail::Descriptor fd(trelm::detail::open_file(
        path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0666));
    struct stat status;
    if (!fd || fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink > 1 ||
        !trelm::detail::is_trusted(status.st_uid))
        return nullptr;
    FILE* stream = fdopen(fd.get(), "a");
    if (stream) fd.let_go();
    return stream;
}

void flush_line() {
    line.text[line.fill] = '\0';
    line.fill = 0;
    fputs(line.text, stderr);
    if (!(trelm::detail::debug_flags() & trelm::detail::kLogToFile)) return;
    if (FILE* stream = trelm_dbg_get_fptr()) fputs(line.text, stream);
    memset(line.text, 0, sizeof line.text);
}

void trelm_dbg_putc(char c) {
    line.text[line.fill++] = c;
    if (c == '\n' || line.fill > kLineRoom) flush_line();
}

void trelm_dbg_puts(const char* s) {
    while (*s) trelm_dbg_putc(*s++);
}

// Digits of a number as the log writes them; hexadecimal numbers above 9 carry an "h".
class Digits {
  public:
    Digits(uint64_t n, uint8_t base) {
        if (base < 2) return;
        start_ = sizeof text_ - 2;
        if (base == 16 && n > 9) text_[start_] = 'h';
        do {
            text_[--start_] = "0123456789ABCDEF"[n % base % 16];
            n /= base;
            ++count_;
        } while (n);
    }
    const char* text() const { return text_ + start_; }
    unsigned count() const { return count_; }

  private:
    char text_[64 + 3] = {};
    size_t start_ = 0;
    unsigned count_ = 0;
};

void trelm_dbg_output_number(uint64_t n, uint8_t base) { trelm_dbg_puts(Digits(n, base).text()); }

// Writes the time before a line of the file. False if the time cannot be converted; the line is then dropped.
bool stamp(char* scratch) {
    time_t now = time(nullptr);
    tm local;
    tzset();  // as localtime() does: a host program may change its time zone
    if (!localtime_r(&now, &local)) return false;
    strftime(scratch, kScratch, "%b %d %T", &local);
    if (FILE* stream = trelm_dbg_get_fptr()) {
        fprintf(stream, "%s: ", scratch);
        fflush(stream);
        sync();
    }
    return true;
}

void close_log() {
    if (!trelmdbg_fp) return;
    fclose(trelmdbg_fp);
    trelmdbg_fp = nullptr;
}

struct DumpLayout {
    uint8_t bits;
    uint8_t per_row;
    const char* header;
    const char* rule;
};

constexpr DumpLayout kDumpLayouts[] = {
    {8, 16, " 0    1    2    3    4    5    6    7    8    9    Ah   Bh   Ch   Dh   Eh   Fh\n",
     "------------------------------------------------------------------------------\n"},
    {16, 8, "   0      2      4      6      8      Ah     Ch     Eh\n",
     "------------------------------------------------------\n"},
    {32, 4, "       0          4          8          Ch\n", "------------------------------------------\n"},
    {64, 2, "               0                  8\n", "-----------------------------------\n"},
};
static_assert(__builtin_strlen(kDumpLayouts[0].rule) == 78 + 1);  // with its newline

uint64_t element_at(const uint8_t* buffer, uint64_t index, size_t bytes) {
    uint64_t value = 0;  // all supported machines are little-endian
    memcpy(&value, buffer + index * bytes, bytes);
    return value;
}

void dump_elements(const DumpLayout& layout, const uint8_t* buffer, uint64_t count) {
    const unsigned bytes = layout.bits / 8u;
    for (uint64_t i = 0; i < count; ++i) {
        uint64_t value = element_at(buffer, i, bytes);
        Digits digits(value, 16);
        for (unsigned pad = digits.count(); pad < 2 * bytes; ++pad) trelm_dbg_putc(' ');
        trelm_dbg_puts(digits.text());
        bool row_full = (i + 1) % layout.per_row == 0;
        trelm_dbg_puts(row_full ? "\n" : value > 9 ? "  " : "   ");
    }
    if (count % layout.per_row) trelm_dbg_putc('\n');
}

}  // namespace

void trelm_set_debug_level(void) {
    const char* flags = getenv("TRELM_API_DEBUG");
    if (!flags) return;
    const auto wanted = static_cast<uint32_t>(strtol(flags, nullptr, 16));
    if (wanted != trelm::detail::debug_flags()) __atomic_store_n(&trelm_debug, wanted, __ATOMIC_RELAXED);
    if (!wanted || trelm::detail::debug_semaphore() != -1) return;
    // Several threads that arrive here at once get the same set.
    const trelm::detail::NoCancellation whole;
    __atomic_store_n(&trelm_dbg_sem_id, trelm::detail::sem_get(trelm_dbg_semkey), __ATOMIC_RELAXED);
}

FILE* trelm_dbg_get_fptr(void) {
    if (trelmdbg_fp) return trelmdbg_fp;
    if (trelm::detail::debug_flags() && !trelmlog_path[0]) {
        memset(trelmlog_path, 0, 256);
        memcpy(trelmlog_path, kDefaultLogPath, sizeof kDefaultLogPath);
    }
    trelmlog_path[sizeof trelmlog_path - 1] = '\0';  // a host program may have filled all of it
    if (trelmlog_path[0]) trelmdbg_fp = open_log(trelmlog_path);
    return trelmdbg_fp;
}

void trelm_dbg_print(const char* func_name, const char* string, uint64_t number, uint8_t radix,
                     uint8_t newline) {
    if (!trelm::detail::debug_flags()) return;
    trelm::detail::ErrnoKeeper keep;
    trelm::detail::Heap<char> scratch(kScratch);
    if (!scratch) return;
    Turn turn;
    trelm::detail::QuietWrites quiet;
    if ((trelm::detail::debug_flags() & trelm::detail::kLogToFile) && newline == 1 && !stamp(scratch.get()))
        return;
    if (func_name) trelm_dbg_puts(func_name);
    trelm_dbg_puts(string);
    if (radix) trelm_dbg_output_number(number, radix);
    if (newline == 1) trelm_dbg_putc('\n');
    close_log();
}

void trelm_dbg_dump(const char* string, const uint8_t* buffer, uint8_t wd_size, uint64_t count) {
    Turn turn;
    trelm::detail::QuietWrites quiet;
    if (*string) {
        trelm_dbg_puts(string);
        trelm_dbg_putc('\n');
    }
    for (const DumpLayout& layout : kDumpLayouts) {
        if (layout.bits != wd_size) continue;
        trelm_dbg_puts(layout.header);
        trelm_dbg_puts(layout.rule);
        dump_elements(layout, buffer, buffer ? count : 0);
        trelm_dbg_puts(layout.rule);
    }
    // Data left in the buffer would be written at the end of the program, outside the lock.
    if (trelmdbg_fp && fflush(trelmdbg_fp) != 0) close_log();
}

void trelm::detail::write_line(const char* func_name, const Piece* pieces, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        trelm_dbg_print(i ? nullptr : func_name, pieces[i].text, pieces[i].number, pieces[i].radix,
                        i + 1 == count);
    }
}
