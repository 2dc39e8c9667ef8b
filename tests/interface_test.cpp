// What libtrelm.so looks like from outside: the names that it exports, the libraries that it needs, its
// header in C, and the process-wide variables before anything has happened.
#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "trelm_core.h"
#include "trelm_dbg.h"

extern "C" int call_everything_from_c(void);

namespace {

// What a command says of the library, by lines.
std::vector<std::string> told_by(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(
        popen((command + " " TRELM_BINARY_DIR "/lib/libtrelm.so").c_str(), "r"), pclose);
    std::vector<std::string> lines;
    std::array<char, 1024> line{};
    while (fgets(line.data(), line.size(), pipe.get()))
        lines.emplace_back(line.data(), strlen(line.data()) - 1);
    return lines;
}

// The names of the private node that no test of the library needs would be missed by nobody: they are
// counted.
TEST(Interface, ExportsThePublicNamesInOneNodeAndTheInternalOnesInAnother) {
    std::vector<std::string> expected{"trelm_version_description@@LIBTRELM_5"}, names;
    std::istringstream functions(
        "LoadLibrary FreeLibrary GetVersion GetPortCount OpenAdapter CloseAdapter GetFcoeInfo GetVNPortInfo "
        "GetPortStats SendScsiCommand GetTgtInfo GetLunInfo");
    for (std::string name; functions >> name;) expected.push_back("TRELM_" + name + "@@LIBTRELM_5");
    size_t internal = 0;
    for (const std::string& line : told_by("nm -D --defined-only --with-symbol-versions")) {
        const std::string name = line.substr(line.find_last_of(' ') + 1);
        if (name.ends_with("@@LIBTRELM_PRIVATE")) {
            ++internal;
        } else if (!name.starts_with("LIBTRELM_")) {
            names.push_back(name);
        }
    }
    EXPECT_THAT(names, testing::UnorderedElementsAreArray(expected));
    EXPECT_EQ(internal, 114U);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these need their run-time library too
TEST(Interface, NeedsLibcAndTheManagementLibraryAlone) {
    std::string needed;
    for (const std::string& line : told_by("readelf -d")) {
        if (line.find("(NEEDED)") != line.npos) needed += line.substr(line.find('['));
    }
    EXPECT_THAT(needed, testing::AnyOf("[libvmkmgmt.so][libc.so.6]", "[libc.so.6][libvmkmgmt.so]"));
}
#endif

TEST(Interface, IsUsableFromC) { EXPECT_EQ(call_everything_from_c(), 0); }

TEST(Interface, StartsWithItsVersionAndKeysAndNothingLoaded) {
    const std::string text = "Calvexa Ulvard FC API library version v5.00 build2";
    ASSERT_EQ(sizeof trelm_version_description, 128U);
    EXPECT_EQ(std::string(trelm_version_description, 128), text + std::string(128 - text.size(), '\0'));
    EXPECT_STREQ(trelm_api_version, "v5.00 build2");
    EXPECT_STREQ(trelm_db_fname, "/tmp/trelm_shared.dat");
    EXPECT_THAT((std::array{trelm_db_semkey, trelm_dbg_semkey}), testing::ElementsAre(812, 883));
    EXPECT_THAT((std::array{trelm_db_sem_id, trelm_dbg_sem_id, trelm_shm_fildes}), testing::Each(-1));
    EXPECT_EQ(trelm_library_instance, 255);
    EXPECT_EQ(trelm_use_db, 1);
    EXPECT_EQ(trelm_debug, 0U);
    EXPECT_TRUE(!trelm_priv_database && !trelm_phy_info && !trelm_shared_data && !trelmdbg_fp);
}

}  // namespace
