// registry_test.cpp - the registry of ports: records, messages and the dump. A fuzz target tests look-ups,
// the order of records and the cursor over sequences of calls.
#include "support/failing_allocation.h"
#include "support/log_capture.h"

namespace {

using namespace trelm::test;

class Registry : public ::testing::Test {
  protected:
    ~Registry() override {
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
    }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kSilent};
};

TEST_F(Registry, AddsEmptyRecordsAndReleasesThem) {
    set_debug_flags(kAllLines);
    trelm_priv_db* pdb = nullptr;
    trelm_hw_info* hw = nullptr;
    EXPECT_EQ(trelm_alloc_pdb_mem(&pdb), 0U);
    EXPECT_EQ(trelm_alloc_hw_info_mem(&hw), 0U);
    trelm_hw_info empty{};
    empty.oshandle = -1;
    const trelm_priv_db zero{};
    EXPECT_EQ(memcmp(hw, &empty, sizeof empty), 0);
    EXPECT_EQ(memcmp(pdb, &zero, sizeof zero), 0);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(0, 0), nullptr);
    trelm_free_pdb_element(pdb);
    EXPECT_EQ(trelm_phy_info->count, 1U) << "hardware records are no business of the port list";
    trelm_free_hw_info_element(hw);
    EXPECT_EQ(trelm_phy_info->count, 0U);
    EXPECT_EQ(trelm_priv_database->count, 0U);
    EXPECT_EQ(log.take_text(),
              "trelm_alloc_pdb_mem: entered.\ntrelm_alloc_pdb_mem: exiting sucessfully.\n"
              "trelm_alloc_hw_info_mem: entered.\ntrelm_alloc_hw_info_mem: exiting sucessfully.\n"
              "trelm_get_vn_pdb_from_user_handle: invalid handle\n"
              "trelm_free_pdb_element: entered.\ntrelm_free_pdb_element: exiting.\n"
              "trelm_free_hw_info_element: entered.\ntrelm_free_hw_info_element: exiting.\n");
}

TEST_F(Registry, ReportsAMissingListAndExhaustedMemory) {
    set_debug_flags(kErrorLines);
    const dorfc_pci_info at{};
    uint32_t instance = 0;
    EXPECT_EQ(trelm_get_pdb_from_user_instance(0), nullptr);
    EXPECT_EQ(trelm_get_instance_from_pdb(nullptr, &instance), 1U);
    EXPECT_EQ(trelm_get_pdb_from_user_handle(1), nullptr);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(1, 0), nullptr);
    EXPECT_EQ(trelm_get_parent_port(&at), nullptr);
    EXPECT_EQ(trelm_get_hw_info_inst(&at), nullptr);
    trelm_free_pdb_element(nullptr);
    trelm_free_hw_info_element(nullptr);
    // If any part of an allocation fails, the whole list is released.
    trelm_priv_db* pdb = nullptr;
    trelm_hw_info* hw = nullptr;
    for (const size_t size : {sizeof(trelm_dlist), sizeof(trelm_priv_db), sizeof(trelm_dl_node)}) {
        if (size == sizeof(trelm_dl_node)) trelm_alloc_pdb_mem(&pdb);
        const FailingAllocation fail(size);
        EXPECT_EQ(trelm_alloc_pdb_mem(&pdb), 1U);
        EXPECT_EQ(trelm_priv_database, nullptr);
    }
    for (const size_t size : {sizeof(trelm_dlist), sizeof(trelm_hw_info)}) {
        const FailingAllocation fail(size);
        EXPECT_EQ(trelm_alloc_hw_info_mem(&hw), 1U);
        EXPECT_EQ(trelm_phy_info, nullptr);
    }
    EXPECT_THAT(log.take(),
                ElementsAre("trelm_get_pdb_from_user_instance: no memory allocated for api_priv_data",
                            "trelm_get_instance_from_pdb: no memory allocated for api_priv_data",
                            "trelm_get_pdb_from_user_handle: no memory allocated for api_priv_data",
                            "trelm_get_vn_pdb_from_user_handle: no memory allocated for api_priv_data",
                            "trelm_get_parent_port: no memory allocated for api_priv_data",
                            "trelm_get_hw_info_inst: api_phy_info is NOT initialized. Exiting.",
                            "trelm_free_pdb_element: no memory allocated for api_priv_data.",
                            "trelm_free_hw_info_element: no memory allocated for api_phy_info.",
                            "trelm_alloc_pdb_mem: not enough memory for api_priv_data.",
                            "trelm_alloc_pdb_mem: not enough memory for api_priv_data instance.",
                            "trelm_alloc_pdb_mem: failed.", "trelm_alloc_pdb_mem: trelm_dlist_insert failed.",
                            "trelm_alloc_pdb_mem: failed.",
                            "trelm_alloc_hw_info_mem: not enough memory for api_phy_info.",
                            "trelm_alloc_hw_info_mem: not enough memory for api_phy_info instance.",
                            "trelm_alloc_hw_info_mem: failed."));
}

TEST_F(Registry, KeepsAddressesAsNumbers) {
    EXPECT_EQ(trelm_ptr_to_64bit(&host), reinterpret_cast<uintptr_t>(&host));
    EXPECT_EQ(trelm_64bit_to_ptr(trelm_ptr_to_64bit(&host)), &host);
}

TEST_F(Registry, KnowsQuadPortAdaptersByAllFourIds) {
    constexpr std::tuple<int, int, int> kIds[] = {{0x1077, 0x8080, 0x1077}, {0x1077, 0x8080, 0x193D},
                                                  {0x1078, 0x8080, 0x1077}, {0x1077, 0x8081, 0x1077},
                                                  {0x1077, 0x8080, 0x1078}, {0xFFFF, 0xFFFF, 0xFFFF}};
    std::vector<uint32_t> quad;
    for (uint32_t i = 0; i < std::size(kIds) << 16; ++i) {
        trelm_hw_info hw{};
        std::tie(hw.vendor_id, hw.device_id, hw.ssvendor_id) = kIds[i >> 16];
        hw.ssdevice_id = static_cast<uint16_t>(i);
        if (trelm_is_quad_port_zr(&hw) == 0) quad.push_back(i);
    }
    EXPECT_THAT(quad, ElementsAre(0x03, 0x04, 0x05, 0x06, 0x10, 0x36, 0x37, 0x11010));
}

TEST_F(Registry, DumpsAPortAndItsHardwareALineAField) {
    trelm_hw_info hw{};
    for (const auto& [field, text] : {std::pair{hw.phys_path, "/dev/char/vmkdriver/dorfc"},
                                      {hw.model_name, "name"},
                                      {hw.model_desc, "desc"},
                                      {hw.serial_num, "serial"},
                                      {hw.driver_version, "1.2"},
                                      {hw.driver_date, "today"},
                                      {hw.fw_version, "3.4"}})
        strcpy(field, text);
    std::tie(hw.vendor_id, hw.device_id, hw.ssvendor_id, hw.ssdevice_id) =
        std::tuple(0x1077, 0x8080, 0x193D, 9);
    std::tie(hw.pci_domain, hw.pci_bus, hw.pci_dev, hw.pci_func, hw.pci_rev) = std::tuple(13, 2, 3, 31, 10);
    std::tie(hw.driver_loaded, hw.npiv_count, hw.phy_port_number) = std::tuple(1, 20, 4);
    memset(hw.manufacturer, 'm', sizeof hw.manufacturer);  // texts that fill their fields
    memset(hw.driver_name, 'd', sizeof hw.driver_name);
    trelm_priv_db pdb = {
        11,      33, 0x20000102CA570001, UINT64_MAX, 0x10200, 3, 12, 0x104, 4, {}, 17, 9, 2500, 1002, 16, &hw,
        nullptr, {}};
    const std::string title = " API Private Data:\n";
    const std::string address =
        " drvr_inst: 11\n host_no: 33\n wwnn: 20000102CA570001h\n"
        " wwpn: FFFFFFFFFFFFFFFFh\n port_id: 10200h\n";
    const std::string rest =
        " port_type: 3\n port_state: Ch\n port_sup_speed: 104h\n port_speed: 4\n"
        " tgt_cnt: 11h\n fcf_cnt: 9\n mtu: 2500\n vlan: 1002\n npiv_index: 16\n";
    set_debug_flags(2);
    trelm_print_priv_data(&pdb);
    EXPECT_EQ(log.take_text(),
              title + " phys_path: /dev/char/vmkdriver/dorfc\n" + address +
                  " manufacturer: " + std::string(64, 'm') +
                  "\n model_name: name\n model_desc: desc\n serial_num: serial\n"
                  " driver_version: 1.2\n driver_date: today\n driver_name: dddddddddddddddd\n"
                  " driver_loaded: 1\n fw_version: 3.4\n vendor_id: 1077h\n device_id: 8080h\n"
                  " ssvendor_id: 193Dh\n ssdevice_id: 9\n pci_domain: Dh\n pci_bus: 2\n"
                  " pci_dev: 3\n pci_func: 1Fh\n pci_rev: Ah\n npiv_count: 14h\n"
                  " phy port_number: 4\n" +
                  rest);
    pdb.hw_info = nullptr;
    trelm_print_priv_data(&pdb);
    EXPECT_EQ(log.take_text(), title + address + rest);
}

}  // namespace
