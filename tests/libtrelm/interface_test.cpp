// libtrelm.so from outside: its exported names, the libraries that it needs, its header in C, and its
// variables before the first call.
#include <gmock/gmock.h>

#include "load.h"
#include "support/places.h"
#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_mgmt.h"

extern "C" int call_everything_from_c(void);

namespace {

// The output of a command about the library. A sed pattern selects the relevant part of each line.
std::string told_by(const std::string& command, const std::string& pattern) {
    const std::string line = "LC_ALL=C; " + command + " '" + trelm::test::binary_dir() +
                             "/lib/libtrelm.so' | sed -n 's/" + pattern + "/\\1/p' | sort | tr '\\n' ' '";
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(line.c_str(), "r"), pclose);
    std::string text(10000, '\0');
    text.resize(fread(text.data(), 1, text.size(), pipe.get()));
    return text;
}

TEST(Interface, ExportsThePublicNamesInOneNodeAndTheInternalOnesInAnother) {
    const std::string nm = "nm -D --defined-only --with-symbol-versions";
    EXPECT_EQ(told_by(nm, ".* [^A] \\(.*\\)@@LIBTRELM_5"),
              "TRELM_CloseAdapter TRELM_FreeLibrary TRELM_GetFcoeInfo TRELM_GetLunInfo TRELM_GetPortCount "
              "TRELM_GetPortStats TRELM_GetTgtInfo TRELM_GetVNPortInfo TRELM_GetVersion TRELM_LoadLibrary "
              "TRELM_OpenAdapter TRELM_SendScsiCommand trelm_version_description ");
    EXPECT_EQ(told_by(nm, ".* \\([A-Z] trelm_[a-z]*_semkey\\)@.*"), "D trelm_db_semkey D trelm_dbg_semkey ");
    const std::string internal = told_by(nm, ".* [^A] \\(.*\\)@@LIBTRELM_PRIVATE");
    EXPECT_EQ(std::count(internal.begin(), internal.end(), ' '), 114) << internal;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these need their run-time library too
TEST(Interface, NeedsLibcAndTheManagementLibraryAlone) {
    EXPECT_EQ(told_by("readelf -d", ".*(NEEDED).*\\[\\(.*\\)\\]"), "libc.so.6 libvmkmgmt.so ");
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
    EXPECT_EQ(trelm_debug, 0U);
    EXPECT_TRUE(!trelm_priv_database && !trelm_phy_info && !trelm_shared_data && !trelmdbg_fp);
}

}  // namespace
