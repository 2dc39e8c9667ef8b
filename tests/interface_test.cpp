// What libtrelm.so looks like from outside: the names that it exports, the libraries that it needs, its
// header in C, and the process-wide variables before anything has happened.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <array>
#include <cstdio>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "trelm_core.h"
#include "trelm_dbg.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define TRELM_SANITIZED 1
#endif

extern "C" int call_everything_from_c(void);

namespace {

const std::string kLibrary = TRELM_BINARY_DIR "/lib/libtrelm.so";

std::string output_of(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string text;
    std::array<char, 4096> piece{};
    while (const size_t got = fread(piece.data(), 1, piece.size(), pipe.get()))
        text.append(piece.data(), got);
    return text;
}

// Exported names with the version node that they stand in.
std::map<std::string, std::string> exported_names() {
    std::istringstream lines(output_of("nm -D --defined-only --with-symbol-versions " + kLibrary));
    std::map<std::string, std::string> names;
    for (std::string line; std::getline(lines, line);) {
        const size_t name = line.find_last_of(' ') + 1;
        const size_t version = line.find("@@");
        if (version != std::string::npos) names[line.substr(name, version - name)] = line.substr(version + 2);
    }
    return names;
}

// `names` with each prefix before it.
void add(std::vector<std::string>& to, std::vector<std::string> prefixes, const std::string& names) {
    for (const std::string& prefix : prefixes) {
        std::istringstream words(names);
        for (std::string name; words >> name;) to.push_back(prefix + name);
    }
}

std::vector<std::string> public_names() {
    std::vector<std::string> names{"trelm_version_description"};
    add(names, {"TRELM_"},
        "LoadLibrary FreeLibrary GetVersion GetPortCount OpenAdapter CloseAdapter GetFcoeInfo GetVNPortInfo "
        "GetPortStats SendScsiCommand GetTgtInfo GetLunInfo");
    return names;
}

std::vector<std::string> internal_names() {
    std::vector<std::string> names{"trelmlog_path", "trelmdbg_fp"};
    add(names, {"trelm_"},
        "debug os_type priv_database phy_info db_sem_id dbg_sem_id shm_fildes shared_data library_instance "
        "db_semkey dbg_semkey db_fname use_db api_version load_lib unload_lib cleanup_hbas check_esx "
        "xlate_err "
        "set_debug_level dbg_print dbg_dump dbg_get_fptr sem_wait sem_signal alloc_pdb_mem alloc_hw_info_mem "
        "free_pdb_element free_hw_info_element free_all_pdb_mem free_all_hw_info_mem "
        "get_pdb_from_user_instance get_instance_from_pdb get_pdb_from_user_handle "
        "get_vn_pdb_from_user_handle get_hw_info_inst get_parent_port quad_port_zr_list is_quad_port_zr "
        "print_priv_data revcpy ptr_to_64bit 64bit_to_ptr open_database close_database "
        "get_total_libinst_count "
        "charnode_exist setup_ioctl_struct get_hba_count get_hostno get_pci_info get_dorfc_link_state "
        "read_directory read_file_for_link");
    add(names, {"trelm_", "trelmnt_", "trelm_pyxnt_"},
        "find_all_instances open_adapter close_adapter get_port_info get_port_stats get_tgt_info "
        "get_fcf_info send_scsi_cmd");
    add(names, {"trelmnt_", "trelm_pyxnt_"}, "get_hw_info_inst get_parent_port");
    add(names, {"kron_fcapi_", "cx_fcoe_"}, "sig callbacks handle");
    add(names, {"trelm_dlist_"}, "new new_with_delete start end mark insert delete push pop shift unshift");
    add(names, {"trelm_dlist_"},
        "destroy find_custom transform insert_sorted unshift_sorted move sort_custom filter_sort");
    add(names, {"_trelm_dlist_"}, "mark_move insert_dlnode remove merge swap");
    return names;
}

TEST(Interface, ExportsThePublicNamesInOneNodeAndTheInternalOnesInAnother) {
    std::map<std::string, std::string> expected;
    for (const std::string& name : public_names()) expected[name] = "LIBTRELM_5";
    for (const std::string& name : internal_names()) expected[name] = "LIBTRELM_PRIVATE";
    EXPECT_THAT(exported_names(), testing::UnorderedElementsAreArray(expected));
}

#ifndef TRELM_SANITIZED  // a sanitizer needs its run-time library too
TEST(Interface, NeedsLibcAndTheManagementLibraryAlone) {
    std::istringstream lines(output_of("readelf -d " + kLibrary));
    std::vector<std::string> needed;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") == std::string::npos) continue;
        const size_t name = line.find('[') + 1;
        needed.push_back(line.substr(name, line.find(']') - name));
    }
    EXPECT_THAT(needed, testing::UnorderedElementsAre("libvmkmgmt.so", "libc.so.6"));
}
#endif

TEST(Interface, IsUsableFromC) { EXPECT_EQ(call_everything_from_c(), 0); }

TEST(Interface, DescribesItselfInAZeroPaddedText) {
    const std::string text = "Calvexa Ulvard FC API library version v5.00 build2";
    ASSERT_EQ(sizeof trelm_version_description, 128U);
    EXPECT_EQ(std::string(trelm_version_description, 128), text + std::string(128 - text.size(), '\0'));
    EXPECT_STREQ(trelm_api_version, "v5.00 build2");
}

TEST(Interface, StartsWithNothingLoadedAndNothingLogged) {
    EXPECT_EQ(trelm_debug, 0U);
    EXPECT_EQ(trelm_os_type, 0);
    EXPECT_EQ(trelm_priv_database, nullptr);
    EXPECT_EQ(trelm_phy_info, nullptr);
    EXPECT_EQ(trelm_db_sem_id, -1);
    EXPECT_EQ(trelm_dbg_sem_id, -1);
    EXPECT_EQ(trelm_shm_fildes, -1);
    EXPECT_EQ(trelm_shared_data, nullptr);
    EXPECT_EQ(trelm_library_instance, 255);
    EXPECT_EQ(trelm_use_db, 1);
    EXPECT_EQ(trelm_db_semkey, 812);
    EXPECT_EQ(trelm_dbg_semkey, 883);
    EXPECT_STREQ(trelm_db_fname, "/tmp/trelm_shared.dat");
    EXPECT_STREQ(trelmlog_path, "");
    EXPECT_EQ(trelmdbg_fp, nullptr);
}

}  // namespace
