// The link state of a legacy port, read from the text files that its driver keeps under /proc.

#include <dirent.h>

#include <cstdio>
#include <cstring>

#include "trelm_core.h"
#include "trelm_owners.h"

namespace {

constexpr char kDirectory[] = "/proc/scsi/dorfc/";
constexpr uint32_t kMaxNames = 128;
constexpr size_t kNameRoom = 32;
constexpr size_t kPathRoom = 256;
constexpr size_t kLineRoom = 256;

// Reads on until a line holds the text. Lines longer than the buffer are looked at piece by piece.
bool skip_past(FILE* file, const char* text) {
    char line[kLineRoom];
    while (fgets(line, sizeof line, file)) {
        if (strstr(line, text)) return true;
    }
    return false;
}

}  // namespace

uint32_t trelm_read_directory(const char* pth, char (*file_names)[32], uint32_t* count) {
    char path[kPathRoom];
    snprintf(path, sizeof path, "%s", pth);
    trelm::Directory directory(opendir(path));
    if (!directory) return 1;
    uint32_t names = 0;
    while (names < kMaxNames) {
        const dirent* entry = readdir(directory.get());
        if (!entry) break;
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0) continue;
        // A longer name would fill its slot without an end.
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
    trelm::Stream file(filename ? fopen(filename, "re") : nullptr);
    if (!file) return 1;
    char wwpn[32];
    snprintf(wwpn, sizeof wwpn, "%02llx", static_cast<unsigned long long>(pdb->wwpn));
    uint32_t result = 1;
    while (skip_past(file.get(), "SCSI Device Information") && skip_past(file.get(), wwpn) &&
           skip_past(file.get(), "LPORT_ST_READY")) {
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
        snprintf(path, sizeof path, "%s%s", kDirectory, names[i]);
        if (trelm_read_file_for_link(path, pdb) == 0) return;
    }
}
