// scsi_decoding_test.cpp - sense data and vital product data pages that no device of the simulated host
// returns.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "sense.h"
#include "vpd_pages.h"

namespace {

using namespace trelmctl;

std::vector<uint8_t> bytes(const std::string& text) {
    std::vector<uint8_t> out;
    std::istringstream words(text);
    for (std::string word; words >> word;) out.push_back(static_cast<uint8_t>(std::stoul(word, nullptr, 16)));
    return out;
}

TEST(SenseData, IsDecodedFromBothFormatsWithEveryFieldThatItHolds) {
    const struct {
        const char *bytes, *words, *details;
    } rows[]{
        {"f0 00 03 00 00 12 34 0a 00 00 00 07 11 00 00 80 00 05",
         "Medium Error: Unrecovered read error (03/11/00)",
         "Information: 4660 (0x1234)|Command-specific information: 7 (0x7)|Retries: 5|"},
        {"72 05 26 00 00 00 00 08 02 06 00 00 8b 00 14 00",
         "Illegal Request: Invalid field in parameter list (05/26/00)",
         "Field in error: byte 20, bit 3, of the data sent|"},
        {"72 05 24 00 00 00 00 08 02 06 00 00 c0 00 02 00",
         "Illegal Request: Invalid field in cdb (05/24/00)", "Field in error: byte 2 of the CDB|"},
        {"72 03 11 00 00 00 00 0c 00 0a 80 00 00 00 00 01 00 00 00 02",
         "Medium Error: Unrecovered read error (03/11/00)", "Information: 4294967298 (0x100000002)|"},
        {"70 00 02 00 00 00 00 0a 00 00 00 00 04 04 00 80 40 00",
         "Not Ready: Logical unit not ready, format in progress (02/04/04)", "Progress: 25.0 %|"},
        {"71 00 04 00 00 00 00 0a 00 00 00 00 44 00 00 00 00 00",
         "Hardware Error: Internal target failure (04/44/00), of an earlier command", ""},
        {"70 00 0f 00 00 00 00 0a 00 00 00 00 00 00 00 00 00 00",
         "Completed: No additional sense information (0f/00/00)", ""},
        {"70 00 01 00 00 00 00 00", "Recovered Error: No additional sense information (01/00/00)", ""},
    };
    for (const auto& row : rows) {
        const auto sense = decode_sense(bytes(row.bytes));
        ASSERT_TRUE(sense) << row.bytes;
        EXPECT_EQ(sense->words(), row.words);
        std::string details;
        for (const std::string& detail : sense->details()) details += detail + "|";
        EXPECT_EQ(details, row.details) << row.bytes;
        const bool harmless = sense->deferred || sense->key == 1 || sense->key == 15;
        EXPECT_EQ(sense->is_failure(), !harmless) << row.bytes;
    }
    for (const char* none : {"", "70 00 05", "00 00 00 00 00 00 00 00", "7f 00 00 00 00 00 00 00"})
        EXPECT_FALSE(decode_sense(bytes(none))) << none;
    // Bytes beyond its own length are ignored.
    EXPECT_EQ(decode_sense(bytes("70 00 05 00 00 00 00 02 01 02 03 04 20 00"))->bytes.size(), 10u);
}

TEST(VitalProductData, IsDecodedAsFarAsThePageReaches) {
    const struct {
        const char *bytes, *text;
    } rows[]{
        {"00 b2 00 04 0a e4 02 00",
         "  Threshold exponent                    10\n  UNMAP                                 1\n"
         "  WRITE SAME (16) unmaps                1\n  WRITE SAME (10) unmaps                1\n"
         "  Unmapped blocks read as zeros         1\n  Provisioning type (1: full, 2: thin)  2\n"},
        {"00 b0 00 28 00 01 00 02 00 00 00 03 00 00 00 04 00 00 00 05 00 00 00 06 00 00 00 07 00 00 00 08 "
         "00 00 00 00 00 00 00 00 00 00 01 02",
         "  Largest COMPARE AND WRITE, blocks     1\n  Optimal transfer granularity, blocks  2\n"
         "  Largest transfer, blocks              3\n  Optimal transfer, blocks              4\n"
         "  Largest prefetch, blocks              5\n  Largest UNMAP, blocks                 6\n"
         "  Most UNMAP descriptors                7\n  Optimal UNMAP granularity, blocks     8\n"
         "  Largest WRITE SAME, blocks            258\n"},
        {"00 b1 00 05 1c 20 02 a3 25",
         "  Rotation rate, rpm (1: not rotating)  7200\n  Product type                          2\n"
         "  Form factor                           3\n  Zoned                                 2\n"},
        {"00 b1 00 02 00 01", "  Rotation rate, rpm (1: not rotating)  1\n"},
        {"00 83 00 0c 61 a8 00 04 00 00 01 02 02 01 00 09",
         "  SCSI name string: 00000102\n    of: Target device that contains addressed lu\n"},
        {"00 80 00 04 20 41 42 20", "  Serial number  AB\n"},
        {"00 c0 00 01 00", ""},
    };
    for (const auto& row : rows) {
        nlohmann::ordered_json json;
        EXPECT_EQ(decode_page(bytes(row.bytes), json), row.text) << row.bytes;
    }
    EXPECT_EQ(page_title(0xC0), "Vendor specific");
    EXPECT_EQ(page_title(0xBF), "Page without a known name");
}

TEST(NameOfALun, IsItsBestDesignatorAndNeverThatOfItsPortOrTarget) {
    const std::string header = "00 83 00 00 ", t10 = "02 01 00 02 41 42 ", eui = "01 02 00 02 0a 0b ",
                      naa = "01 03 00 02 60 01 ", of_port = "01 13 00 02 60 02 ";
    EXPECT_EQ(lun_name(bytes(header + t10)), "t10.AB");
    EXPECT_EQ(lun_name(bytes(header + t10 + eui)), "eui.0a0b");
    EXPECT_EQ(lun_name(bytes(header + of_port + t10 + eui + naa)), "naa.6001");
    EXPECT_EQ(lun_name(bytes(header + of_port)), "");
}

}  // namespace
