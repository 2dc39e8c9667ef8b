// link_state.cpp - hostile link-state files: names and texts of any length and content.
#include <dirent.h>

#include <filesystem>
#include <fstream>

#include "../tests/support/guarded.h"
#include "../tests/support/libc_replacements.h"
#include "target.h"
#include "trelm_core.h"
#include "trelm_mgmt.h"

namespace {

namespace fs = std::filesystem;
using trelm::fuzz::Input;

const std::string kDirectory = fs::temp_directory_path() / ("link-state-" + std::to_string(getpid()));
constexpr uint32_t kMaxNames = 128;
constexpr size_t kNameRoom = 32;

// The text of the last.
std::string write_files(Input& input) {
    fs::create_directory(kDirectory);
    const auto text = [&input](size_t size) {
        const auto bytes = input.bytes(size);
        return std::string(bytes.begin(), bytes.end());
    };
    for (uint32_t files = input.take<uint8_t>(); files > 0; --files)
        std::ofstream(kDirectory + "/" + text(input.below(48)).c_str());
    std::string last = text(SIZE_MAX);
    std::ofstream(kDirectory + "/last") << last;
    return last;
}

// The table has every name that fits, in order and terminated.
void check_table() {
    trelm::test::GuardedBytes table(kMaxNames * kNameRoom);
    uint32_t count = 0, expected = 0;
    REQUIRE(!trelm_read_directory(kDirectory.c_str(), reinterpret_cast<char(*)[32]>(table.data()), &count));
    REQUIRE(table.guards_intact());
    for (const auto& file : fs::directory_iterator(kDirectory)) {
        const std::string name = file.path().filename();
        if (name.size() >= kNameRoom || expected == kMaxNames) continue;
        const auto* slot = reinterpret_cast<const char*>(table.data()) + expected++ * kNameRoom;
        REQUIRE(std::string(slot, strnlen(slot, kNameRoom)) == name);
    }
    REQUIRE(count == expected);
}

// A file for which the port is ready has all three texts, in this order.
bool may_be_ready(const std::string& text, uint64_t wwpn) {
    char name[32];
    snprintf(name, sizeof name, "%02llx", static_cast<unsigned long long>(wwpn));
    const size_t section = text.find("SCSI Device Information");
    const size_t port = section == std::string::npos ? section : text.find(name, section);
    return port != std::string::npos && text.find("LPORT_ST_READY", port) != std::string::npos;
}

}  // namespace

// This is the directory of the driver.
REPLACES_LIBC(DIR*, opendir, (const char* path)) {
    return NEXT_OF(opendir)(CALLED_BY_LIBRARY() ? kDirectory.c_str() : path);
}
REPLACES_LIBC(int, open, (const char* path, int flags, mode_t mode)) {
    return NEXT_OF(open)(CALLED_BY_LIBRARY() ? (kDirectory + strrchr(path, '/')).c_str() : path, flags, mode);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    REQUIRE(trelm::test::find_library());
    Input input(data, size);
    trelm_priv_db pdb = {};
    pdb.wwpn = input.take<uint64_t>();
    const std::string last = write_files(input);
    check_table();

    const bool ready = trelm_read_file_for_link((kDirectory + "/last").c_str(), &pdb) == 0;
    REQUIRE(pdb.port_state == (ready ? TRELM_PORTSTATE_ONLINE : 0));
    REQUIRE(!ready || may_be_ready(last, pdb.wwpn));
    trelm_get_dorfc_link_state(&pdb);
    REQUIRE(pdb.port_state == TRELM_PORTSTATE_ONLINE || pdb.port_state == TRELM_PORTSTATE_LINKDOWN);
    fs::remove_all(kDirectory);
    return 0;
}
