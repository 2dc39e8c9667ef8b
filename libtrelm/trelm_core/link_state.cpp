// The link state of a legacy port, read from the text files that its driver keeps under /proc.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "legacy_driver.h"
#include "trelm_mgmt.h"
#include "trelm_system.h"

namespace {

constexpr char kDirectory[] = "/proc/scsi/dorfc/";
constexpr uint32_t kMaxNames = 128;
constexpr size_t kNameRoom = 32;
constexpr size_t kPathRoom = 256;
constexpr size_t kLineRoom = 256;

// Reads a text file line by line; a line longer than 255 characters comes in pieces. A stdio stream would do
// the same, but its allocation and its extra system call cost more than reading the file.
class LineReader {
  public:
    explicit LineReader(const char* path) : file_(path ? trelm::detail::open_file(path, O_RDONLY) : -1) {}

    explicit operator bool() const { return static_cast<bool>(file_); }

    bool next(char (&line)[kLineRoom]) {
        size_t length = 0;
        bool ended = false;
        while (!ended && length < kLineRoom - 1 && (begin_ != end_ || refill())) {
            const char* const from = buffer_ + begin_;
            size_t taken = end_ - begin_ < kLineRoom - 1 - length ? end_ - begin_ : kLineRoom - 1 - length;
            if (const void* newline = memchr(from, '\n', taken)) {
                taken = static_cast<size_t>(static_cast<const char*>(newline) - from) + 1;
                ended = true;
            }
            memcpy(line + length, from, taken);
            length += taken;
            begin_ += taken;
        }
        line[length] = '\0';
        return length != 0;
    }

  private:
    bool refill() {
        ssize_t got;
        do {
            got = read(file_.get(), buffer_, sizeof buffer_);
        } while (got < 0 && errno == EINTR);
        begin_ = 0;
        end_ = got > 0 ? static_cast<size_t>(got) : 0;
        return end_ != 0;
    }

    trelm::detail::Descriptor file_;
    size_t begin_ = 0;
    size_t end_ = 0;
    char buffer_[4096];
};

// Reads up to and including the first piece of a line that contains the text.
bool skip_past(LineReader& file, const char* text) {
    char line[kLineRoom];
    while (file.next(line)) {
        if (strstr(line, text)) return true;
    }
    return false;
}

}  // namespace

uint32_t trelm_read_directory(const char* pth, char (*file_names)[32], uint32_t* count) {
    char path[kPathRoom];
    snprintf(path, sizeof path, "%s", pth);
    trelm::detail::Directory directory(trelm::detail::open_directory(path));
    if (!directory) return 1;
    uint32_t names = 0;
    while (names < kMaxNames) {
        const dirent* entry = readdir(directory.get());
        if (!entry) break;
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        // A longer name would leave no room for the terminating zero.
        const size_t length = strlen(name);
        if (length >= kNameRoom) continue;
        memset(file_names[names], 0, kNameRoom);
        memcpy(file_names[names], name, length);
        ++names;
    }
    *count = names;
    return 0;
}

uint32_t trelm_read_file_for_link(const char* filename, trelm_priv_db* pdb) {
    LineReader file(filename);
    if (!file) return 1;
    char wwpn[32];
    snprintf(wwpn, sizeof wwpn, "%02llx", static_cast<unsigned long long>(pdb->wwpn));
    uint32_t result = 1;
    while (skip_past(file, "SCSI Device Information") && skip_past(file, wwpn) &&
           skip_past(file, "LPORT_ST_READY")) {
        pdb->port_state = TRELM_PORTSTATE_ONLINE;
        result = 0;
    }
    return result;
}

void trelm_get_dorfc_link_state(trelm_priv_db* pdb) {
    pdb->port_state = TRELM_PORTSTATE_LINKDOWN;
    char names[kMaxNames][kNameRoom];
    uint32_t count = 0;
    if (trelm_read_directory(kDirectory, names, &count) != 0) return;
    for (uint32_t i = 0; i < count; ++i) {
        char path[kPathRoom];
        snprintf(path, sizeof path, "%s%.*s", kDirectory, static_cast<int>(kNameRoom - 1), names[i]);
        if (trelm_read_file_for_link(path, pdb) == 0) return;
    }
}
