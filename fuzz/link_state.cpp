// link_state.cpp - hostile link-state files: names and texts of any length and content.
#include <string>

#include "../tests/support/guarded.h"
#include "bare_host.h"
#include "trelm_core.h"

namespace {

using trelm::fuzz::BareHost;
using trelm::fuzz::Input;

constexpr char kDirectory[] = "/proc/scsi/dorfc/";
constexpr uint32_t kMaxNames = 128;
constexpr size_t kNameRoom = 32;

std::string text_of(std::span<const uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }

void add_files(Input& input, BareHost& host) {
    for (uint32_t files = input.take<uint8_t>(); files > 0; --files) {
        std::string name = text_of(input.bytes(input.below(48)));
        host.link_files.emplace_back(name.substr(0, name.find('\0')), "");
    }
    host.link_files.emplace_back("last", text_of(input.bytes(SIZE_MAX)));
}

// Every name that fits stands in the table, in order, with its end.
void check_table(const BareHost& host) {
    trelm::test::GuardedBytes table(kMaxNames * kNameRoom);
    uint32_t count = 0;
    REQUIRE(trelm_read_directory(kDirectory, reinterpret_cast<char(*)[32]>(table.data()), &count) == 0);
    REQUIRE(table.guards_intact());
    uint32_t expected = 0;
    for (const auto& [name, text] : host.link_files) {
        if (name.size() >= kNameRoom || name == "." || name == ".." || expected == kMaxNames) continue;
        const auto* slot = reinterpret_cast<const char*>(table.data()) + expected++ * kNameRoom;
        REQUIRE(std::string(slot, strnlen(slot, kNameRoom)) == name);
    }
    REQUIRE(count == expected);
}

// A file that says 'ready' has all three texts, in this order.
bool may_be_ready(const std::string& text, uint64_t wwpn) {
    char name[32];
    snprintf(name, sizeof name, "%02llx", static_cast<unsigned long long>(wwpn));
    const size_t section = text.find("SCSI Device Information");
    const size_t port = section == std::string::npos ? section : text.find(name, section);
    return port != std::string::npos && text.find("LPORT_ST_READY", port) != std::string::npos;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Input nothing(nullptr, 0);
    BareHost host(nothing);
    trelm_priv_db pdb = {};
    pdb.wwpn = input.take<uint64_t>();
    add_files(input, host);
    check_table(host);

    const bool ready = trelm_read_file_for_link("/proc/scsi/dorfc/last", &pdb) == 0;
    REQUIRE(pdb.port_state == (ready ? TRELM_PORTSTATE_ONLINE : 0));
    REQUIRE(!ready || may_be_ready(host.link_files.back().second, pdb.wwpn));
    trelm_get_dorfc_link_state(&pdb);
    REQUIRE(pdb.port_state == TRELM_PORTSTATE_ONLINE || pdb.port_state == TRELM_PORTSTATE_LINKDOWN);
    return 0;
}
