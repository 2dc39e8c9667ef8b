// The link state of a legacy port, read from text files: which files name a port ready, and the limits of the
// reader.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>

#include "support/port_calls.h"

namespace {

using namespace trelm::test;

// Files of a test, in a directory that no simulated host puts elsewhere.
class LinkStateFiles : public testing::Test {
  protected:
    LinkStateFiles()
        : directory(std::string(TRELM_BINARY_DIR) + "/link_state_" + std::to_string(getpid()) + "_" +
                    std::to_string(++made)) {
        std::filesystem::create_directories(directory);
        pdb.wwpn = 0x2000'001B'21AB'CDEF;
        pdb.port_state = 4;
    }
    ~LinkStateFiles() override { std::filesystem::remove_all(directory); }

    std::string write(const std::string& name, const std::string& text) const {
        const std::string path = directory + "/" + name;
        std::ofstream(path) << text;
        return path;
    }
    bool names_ready(const std::string& text) {
        pdb.port_state = 4;
        const uint32_t result = trelm_read_file_for_link(write("file", text).c_str(), &pdb);
        EXPECT_EQ(pdb.port_state, result == 0 ? 8U : 4U);
        return result == 0;
    }

    static inline std::atomic<int> made = 0;
    const std::string directory;
    trelm_priv_db pdb{};
};

const std::string kSection = "SCSI Device Information:\n";
const std::string kName = "WWPN 2000001b21abcdef here\n";
const std::string kReady = "state = LPORT_ST_READY.\n";

TEST_F(LinkStateFiles, NameAPortReadyOverThreeLinesInOrder) {
    const std::string line = "some other line\n";
    for (const std::string& ready :
         {kSection + kName + kReady, line + kSection + line + line + kName + line + kReady + line,
          "a" + kSection + "b" + kName + "c LPORT_ST_READY",  // the last line may lack its end
          kSection + kName + "LPORT_ST_DOWN\n" + kSection + "WWPN 1\n" + kReady,  // another section's word
          kSection + kName + kReady + kSection + kName}) {
        EXPECT_TRUE(names_ready(ready)) << ready;
    }
    for (const std::string& other :
         {std::string(), kName + kReady + kSection, kSection + kReady + kName, kName + kSection + kReady,
          kSection + kName + "LPORT_ST_READ\n", kSection + "WWPN 2000001B21ABCDEF\n" + kReady,
          kSection + "WWPN 2000001b21abcdee\n" + kReady,
          // Each of the three wants a line of its own.
          std::string("SCSI Device Information: 2000001b21abcdef LPORT_ST_READY\n"),
          kSection + "2000001b21abcdef LPORT_ST_READY\n"}) {
        EXPECT_FALSE(names_ready(other)) << other;
    }
    pdb.wwpn = 5;
    EXPECT_FALSE(names_ready(kSection + "WWPN 5\n" + kReady));
    EXPECT_TRUE(names_ready(kSection + "WWPN 05\n" + kReady)) << "small names have two digits";
    pdb.wwpn = 0x123;
    EXPECT_TRUE(names_ready(kSection + "WWPN 123\n" + kReady));
}

TEST_F(LinkStateFiles, LongLinesAreReadInPiecesOf255) {
    for (const auto& [before, ready] :
         {std::pair{0, true}, {241, true}, {242, false}, {254, false}, {255, true}}) {
        const std::string line = std::string(before, '.') + "LPORT_ST_READY" + std::string(999, '.') + "\n";
        EXPECT_EQ(names_ready(kSection + kName + line), ready) << before;
    }
    const std::string gap(255, ' ');
    EXPECT_TRUE(names_ready("SCSI Device Information" + gap + "2000001b21abcdef" + gap + "LPORT_ST_READY"))
        << "the pieces of one line count as lines";
    EXPECT_FALSE(names_ready(std::string(100000, 'x')));
}

TEST_F(LinkStateFiles, WithoutAFileAPortIsNotReady) {
    EXPECT_EQ(trelm_read_file_for_link(nullptr, &pdb), 1U);
    EXPECT_EQ(trelm_read_file_for_link((directory + "/none").c_str(), &pdb), 1U);
    EXPECT_EQ(trelm_read_file_for_link(directory.c_str(), &pdb), 1U);
    EXPECT_EQ(pdb.port_state, 4U);
}

// The names that a listing gives, with the guards of the table checked.
std::set<std::string> listed(const std::string& directory, uint32_t& count) {
    GuardedBytes table(128 * 32);
    EXPECT_EQ(trelm_read_directory(directory.c_str(), reinterpret_cast<char(*)[32]>(table.data()), &count),
              0U);
    EXPECT_TRUE(table.guards_intact());
    std::set<std::string> names;
    for (uint32_t i = 0; i < count && i < 128; ++i) {
        const char* name = reinterpret_cast<const char*>(table.data()) + 32 * size_t{i};
        EXPECT_LT(strnlen(name, 32), 32U) << "a name without an end";
        names.insert(std::string(name, strnlen(name, 32)));
    }
    return names;
}

TEST_F(LinkStateFiles, AListingHasAllNamesThatFitItsSlotsUntilItsTableIsFull) {
    uint32_t count = 4711;
    EXPECT_TRUE(listed(directory, count).empty());
    EXPECT_EQ(count, 0U);
    const std::string longest(31, 'n');
    for (const std::string& name : {std::string("1"), std::string(".hidden"), std::string("..."), longest,
                                    std::string(32, 'n'), std::string(33, 'm'), std::string(255, 'l')}) {
        write(name, "");
    }
    std::filesystem::create_directory(directory + "/sub");
    EXPECT_EQ(listed(directory, count), (std::set<std::string>{"1", ".hidden", "...", longest, "sub"}));
    EXPECT_EQ(count, 5U);
    char names[128][32];
    count = 4711;
    EXPECT_EQ(trelm_read_directory((directory + "/none").c_str(), names, &count), 1U);
    EXPECT_EQ(trelm_read_directory((directory + "/1").c_str(), names, &count), 1U);
    EXPECT_EQ(trelm_read_directory(std::string(5000, 'p').c_str(), names, &count), 1U);
    EXPECT_EQ(count, 4711U);
    for (int i = 5; i < 128; ++i) write("file" + std::to_string(i), "");
    EXPECT_EQ(listed(directory, count).size(), 128U);
    for (int i = 128; i < 300; ++i) write("file" + std::to_string(i), "");
    EXPECT_EQ(listed(directory, count).size(), 128U);
    EXPECT_EQ(count, 128U);
}

TEST(LinkState, OfASimulatedPortFollowsItsLink) {
    Loaded library(hostsim::hosts::legacy_ports(2, 1));
    for (const uint32_t state : {2U, 7U, 3U, 2U}) {
        library.host.model().port(0, 1).link_state = state;
        trelm_priv_db* pdb = trelm_get_pdb_from_user_instance(1);
        pdb->port_state = 99;
        trelm_get_dorfc_link_state(pdb);
        EXPECT_EQ(pdb->port_state, state == 2 ? 8U : 4U);
    }
    library.host.model().driver(DriverKind::legacy).presence = hostsim::Driver::Presence::absent;
    trelm_priv_db* pdb = trelm_get_pdb_from_user_instance(0);
    trelm_get_dorfc_link_state(pdb);
    EXPECT_EQ(pdb->port_state, 4U) << "without the driver's directory the link is down";
}

}  // namespace
