// libtrelm.so from outside: its exported names, the libraries that it needs, its header in C, and its
// variables before the first call.
#include <gtest/gtest.h>

#include "load.h"
#include "support/places.h"
#include "trelm_core.h"
#include "trelm_dbg.h"
#include "trelm_mgmt.h"

extern "C" int is_usable_from_c(void);

namespace {

std::string output_of(const std::string& shell_command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(shell_command.c_str(), "r"), pclose);
    std::string text(10000, '\0');
    text.resize(fread(text.data(), 1, text.size(), pipe.get()));
    return text;
}

const std::string kLibrary = " '" + trelm::test::binary_dir() + "/lib/libtrelm.so' ";
const std::string kCommitted = " '" + trelm::test::source_dir() + "/abi/libtrelm.abi' ";

TEST(Interface, ExportsTheCommittedNamesInTheirNodes) {
    const std::string nm = "nm -D --defined-only --with-symbol-versions" + kLibrary;
    const std::string name_and_node =
        "s/.*<elf-symbol name='\\([^']*\\)'.* version='\\([^']*\\)'.*/\\1@@\\2/p";
    EXPECT_EQ(output_of(nm + "| sed -n 's/.* [^A] //p' | LC_ALL=C sort"),
              output_of("sed -n \"" + name_and_node + "\"" + kCommitted + "| LC_ALL=C sort"));
    EXPECT_EQ(output_of(nm + "| grep -c ' D trelm_[a-z]*_semkey@'"), "2\n") << "programs may set the keys";
}

#ifndef TRELM_SANITIZED  // sanitizers need their run-time library too
TEST(Interface, NeedsLibcAndTheManagementLibraryAlone) {
    EXPECT_EQ(output_of("readelf -d" + kLibrary + "| sed -n 's/.*(NEEDED).*: //p' | sort"),
              "[libc.so.6]\n[libvmkmgmt.so]\n");
}
#endif

TEST(Interface, IsUsableFromC) { EXPECT_TRUE(is_usable_from_c()); }

TEST(Interface, StartsWithItsVersionAndKeysAndNothingLoaded) {
    const std::string text = "Calvexa Ulvard FC API library version v5.00 build2";
    ASSERT_EQ(sizeof trelm_version_description, 128U);
    EXPECT_EQ(std::string(trelm_version_description, 128), text + std::string(128 - text.size(), '\0'));
    EXPECT_STREQ(trelm_api_version, "v5.00 build2");
    EXPECT_STREQ(trelm_db_fname, "/tmp/trelm_shared.dat");
    EXPECT_EQ(std::pair(trelm_db_semkey, trelm_dbg_semkey), std::pair(812, 883));
    EXPECT_EQ(std::tuple(trelm_db_sem_id, trelm_dbg_sem_id, trelm_shm_fildes), std::tuple(-1, -1, -1));
    EXPECT_EQ(trelm_library_instance, 255);
    EXPECT_EQ(trelm_debug, 0U);
    EXPECT_TRUE(!trelm_priv_database && !trelm_phy_info && !trelm_shared_data && !trelmdbg_fp);
}

}  // namespace
