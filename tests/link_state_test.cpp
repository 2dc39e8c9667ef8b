// The link state of a legacy port, read from text files: which files name a port ready, and the limits of the
// reader.
#include <gmock/gmock.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <set>

#include "support/loaded_host.h"
#include "support/port_calls.h"
#include "trelm_core.h"

namespace {

using namespace trelm::test;
using hostsim::DriverKind;

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
    EXPECT_TRUE(names_ready(kSection + kName + kReady));
    EXPECT_TRUE(names_ready(line + kSection + line + line + kName + line + kReady + line));
    EXPECT_TRUE(names_ready("a" + kSection + "b" + kName + "c LPORT_ST_READY"))
        << "the last line may lack its end";
    EXPECT_TRUE(names_ready(kSection + kName + "LPORT_ST_DOWN\n" + kSection + "WWPN 1\n" + kReady))
        << "another section's word counts when it follows the name";
    EXPECT_TRUE(names_ready(kSection + kName + kReady + kSection + kName)) << "found once is found";
    EXPECT_FALSE(names_ready(""));
    EXPECT_FALSE(names_ready(kName + kReady + kSection));
    EXPECT_FALSE(names_ready(kSection + kReady + kName));
    EXPECT_FALSE(names_ready(kName + kSection + kReady));
    EXPECT_FALSE(names_ready(kSection + kName + "LPORT_ST_READ\n"));
    EXPECT_FALSE(names_ready(kSection + "WWPN 2000001B21ABCDEF\n" + kReady)) << "names are in lower case";
    EXPECT_FALSE(names_ready(kSection + "WWPN 2000001b21abcdee\n" + kReady));
    // Each of the three wants a line of its own.
    EXPECT_FALSE(names_ready("SCSI Device Information: 2000001b21abcdef LPORT_ST_READY\n"));
    EXPECT_FALSE(names_ready(kSection + "2000001b21abcdef LPORT_ST_READY\n"));
}

TEST_F(LinkStateFiles, SmallNamesAreWrittenWithTwoDigits) {
    pdb.wwpn = 5;
    EXPECT_FALSE(names_ready(kSection + "WWPN 5\n" + kReady));
    EXPECT_TRUE(names_ready(kSection + "WWPN 05\n" + kReady));
    pdb.wwpn = 0x123;
    EXPECT_TRUE(names_ready(kSection + "WWPN 123\n" + kReady));
}

TEST_F(LinkStateFiles, LongLinesAreReadInPiecesOf255) {
    const auto padded = [](size_t before) {
        return std::string(before, '.') + "LPORT_ST_READY" + std::string(999, '.') + "\n";
    };
    EXPECT_TRUE(names_ready(kSection + kName + padded(0)));
    EXPECT_TRUE(names_ready(kSection + kName + padded(241))) << "the last place in the first piece";
    EXPECT_FALSE(names_ready(kSection + kName + padded(242))) << "cut by the end of the piece";
    EXPECT_FALSE(names_ready(kSection + kName + padded(254)));
    EXPECT_TRUE(names_ready(kSection + kName + padded(255)));
    // The pieces of one line count as lines.
    EXPECT_TRUE(names_ready("SCSI Device Information" + std::string(255, ' ') + "2000001b21abcdef" +
                            std::string(255, ' ') + "LPORT_ST_READY"));
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

TEST_F(LinkStateFiles, AListingHasAllNamesThatFitItsSlots) {
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
}

TEST_F(LinkStateFiles, AListingStopsAtAFullTable) {
    for (int i = 0; i < 128; ++i) write("file" + std::to_string(i), "");
    uint32_t count = 0;
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
