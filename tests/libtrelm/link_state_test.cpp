// The link state of a legacy port from text files: which files say that a port is ready, and the limits of
// the reader. A fuzz target tests the directory listing.
#include <fstream>

#include "support/places.h"
#include "support/port_calls.h"

namespace {

using namespace trelm::test;

// Files of a test in a directory that the simulated host does not redirect.
class LinkStateFiles : public testing::Test {
  protected:
    LinkStateFiles() {
        std::filesystem::create_directories(directory);
        pdb.wwpn = 0x2000'001B'21AB'CDEF;
    }
    ~LinkStateFiles() override { std::filesystem::remove_all(directory); }

    void put(const std::string& name, const std::string& text = "") const { std::ofstream(at(name)) << text; }
    std::string at(const std::string& name) const { return directory + "/" + name; }
    bool names_ready(const std::string& text) {
        put("file", text);
        pdb.port_state = 4;
        const uint32_t result = trelm_read_file_for_link(at("file").c_str(), &pdb);
        EXPECT_EQ(pdb.port_state, result == 0 ? 8U : 4U);
        return result == 0;
    }

    const std::string directory = binary_dir() + "/link_state_" + std::to_string(getpid());
    trelm_priv_db pdb{};
};

TEST_F(LinkStateFiles, NameAPortReadyOverThreeLinesInOrder) {
    const std::string section = "SCSI Device Information:\n", name = "WWPN 2000001b21abcdef here\n";
    const std::string ready = "state = LPORT_ST_READY.\n", line = "some other line\n", gap(255, ' ');
    for (const auto& [text, expected] : std::vector<std::pair<std::string, bool>>{
             {line + section + line + line + name + line + ready + line, true},
             {"a" + section + "b" + name + "c LPORT_ST_READY", true},  // the last line may have no line break
             {section + name + "LPORT_ST_DOWN\n" + section + "WWPN 1\n" + ready, true},  // of another port
             {"", false},
             {section + ready + name, false},
             {name + section + ready, false},
             {section + "WWPN 2000001B21ABCDEF\n" + ready, false},
             {section + "2000001b21abcdef LPORT_ST_READY\n",
              false},  // the three texts need lines of their own
             {"SCSI Device Information: 2000001b21abcdef\n" + ready, false},
             // Long lines are read in pieces of 255, which count as lines.
             {section + name + std::string(241, '.') + ready.substr(8) + gap, true},
             {section + name + std::string(242, '.') + ready.substr(8) + gap, false},
             {section + name + std::string(255, '.') + ready.substr(8) + gap, true},
             {"SCSI Device Information" + gap + "2000001b21abcdef" + gap + "LPORT_ST_READY", true},
             {std::string(100000, 'x'), false}})
        EXPECT_EQ(names_ready(text), expected) << text;
}

TEST_F(LinkStateFiles, NameAPortWithAtLeastTwoDigits) {
    pdb.wwpn = 5;
    EXPECT_TRUE(names_ready("SCSI Device Information:\nWWPN 05\nLPORT_ST_READY\n"));
    EXPECT_FALSE(names_ready("SCSI Device Information:\nWWPN 5\nLPORT_ST_READY\n"));
}

TEST_F(LinkStateFiles, ThatCannotBeReadSayNothing) {
    EXPECT_EQ(trelm_read_file_for_link(nullptr, &pdb), 1U);
    for (const std::string& path : {at("none"), directory})
        EXPECT_EQ(trelm_read_file_for_link(path.c_str(), &pdb), 1U);
    put("file");
    uint32_t count = 4711;
    for (const std::string& other : {at("none"), at("file"), at(std::string(5000, 'p'))})
        EXPECT_EQ(trelm_read_directory(other.c_str(), nullptr, &count), 1U);
    EXPECT_EQ(count, 4711U);
}

TEST_F(LinkStateFiles, AreListedUpTo128) {
    uint32_t count = 0;
    for (int i = 0; i < 130; ++i) put("file" + std::to_string(i));
    char names[128][32];
    EXPECT_EQ(trelm_read_directory(directory.c_str(), names, &count), 0U);
    EXPECT_EQ(count, 128U);
}

TEST_F(LinkStateFiles, ThatAreMissingMeanThatTheLinkIsDown) {
    pdb.port_state = 8;
    trelm_get_dorfc_link_state(&pdb);
    EXPECT_EQ(pdb.port_state, 4U);
}

}  // namespace
