// registry_test.cpp - the registry of ports: the order in which records stand, look-ups, releases, and the
// dump.
#include <gmock/gmock.h>

#include <cstring>

#include "host.h"
#include "hosts.h"
#include "support/failing_allocation.h"
#include "support/log_capture.h"
#include "trelm_core.h"

namespace {

using namespace trelm::test;
using ::testing::ElementsAre;

dorfc_pci_info location(uint16_t function) {
    dorfc_pci_info at{};
    at.domain_num = 1;
    at.bus_num = 2;
    at.device_num = 3;
    at.function_num = function;
    return at;
}

class Registry : public ::testing::Test {
  protected:
    ~Registry() override {
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
    }

    // A record as a discovery adds it, numbered by its drvr_inst.
    static trelm_priv_db* add(uint32_t number, uint16_t port_type) {
        trelm_priv_db* pdb = nullptr;
        EXPECT_EQ(trelm_alloc_pdb_mem(&pdb), 0U);
        pdb->drvr_inst = number;
        pdb->port_type = port_type;
        return pdb;
    }
    static trelm_priv_db* add_physical(uint32_t number, uint16_t function) {
        trelm_priv_db* const pdb = add(number, FC_PORTTYPE_NPORT);
        EXPECT_EQ(trelm_alloc_hw_info_mem(&pdb->hw_info), 0U);
        pdb->hw_info->pci_domain = 1;
        pdb->hw_info->pci_bus = 2;
        pdb->hw_info->pci_dev = 3;
        pdb->hw_info->pci_func = function;
        return pdb;
    }
    static trelm_priv_db* add_virtual(uint32_t number, uint16_t function) {
        trelm_priv_db* const pdb = add(number, FC_PORTTYPE_NPIV);
        const dorfc_pci_info at = location(function);
        pdb->npiv_index = 2;
        pdb->hw_info = trelm_get_hw_info_inst(&at);
        pdb->parent = trelm_get_parent_port(&at);
        return pdb;
    }
    static std::vector<uint32_t> order() {
        std::vector<uint32_t> numbers;
        for (const trelm_dl_node* node = trelm_priv_database->head->next; node != trelm_priv_database->head;
             node = node->next)
            numbers.push_back(static_cast<trelm_priv_db*>(node->data)->drvr_inst);
        return numbers;
    }
    static void* cursor() { return trelm_dlist_mark(trelm_priv_database); }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kSilent};
};

TEST_F(Registry, AddsEmptyRecordsBehindWhatWasLastLookedUpAndReleasesThem) {
    set_debug_flags(kAllLines);
    trelm_priv_db* pdb = nullptr;
    trelm_hw_info* hw = nullptr;
    trelm_alloc_pdb_mem(&pdb);
    trelm_alloc_hw_info_mem(&hw);
    trelm_hw_info empty{};
    empty.oshandle = -1;
    const trelm_priv_db zero{};
    EXPECT_EQ(memcmp(hw, &empty, sizeof empty), 0);
    EXPECT_EQ(memcmp(pdb, &zero, sizeof zero), 0);
    trelm_free_pdb_element(pdb);
    trelm_free_hw_info_element(hw);
    EXPECT_EQ(log.take_text(),
              "trelm_alloc_pdb_mem: entered.\ntrelm_alloc_pdb_mem: exiting sucessfully.\n"
              "trelm_alloc_hw_info_mem: entered.\ntrelm_alloc_hw_info_mem: exiting sucessfully.\n"
              "trelm_free_pdb_element: entered.\ntrelm_free_pdb_element: exiting.\n"
              "trelm_free_hw_info_element: entered.\ntrelm_free_hw_info_element: exiting.\n");
    set_debug_flags(kSilent);
    EXPECT_EQ(trelm_phy_info->count, 0U);

    trelm_priv_db* const first = add_physical(0, 0);
    add_virtual(10, 0);
    trelm_priv_db* const second = add_physical(1, 1);
    EXPECT_THAT(order(), ElementsAre(0, 1, 10));
    add_virtual(11, 1);
    add_virtual(12, 7);  // of no port that there is
    EXPECT_EQ(cursor(), nullptr);
    add_physical(2, 2);
    EXPECT_THAT(order(), ElementsAre(2, 0, 1, 12, 11, 10));

    trelm_free_pdb_element(first);
    EXPECT_EQ(cursor(), second);
    trelm_priv_db stranger{};
    trelm_free_pdb_element(&stranger);
    EXPECT_EQ(cursor(), nullptr);
    EXPECT_THAT(order(), ElementsAre(2, 1, 12, 11, 10));
    EXPECT_EQ(trelm_phy_info->count, 3U) << "hardware records are no business of the port list";
    trelm_free_all_pdb_mem();
    EXPECT_EQ(trelm_priv_database, nullptr);
}

TEST_F(Registry, FindsPortsByInstanceHandleAndAllFourPartsOfTheirPciLocation) {
    trelm_priv_db* const bare = add(9, FC_PORTTYPE_UNKNOWN);  // without hardware; all but virtual ports count
    trelm_priv_db* const first = add_physical(0, 0);
    trelm_priv_db* const second = add_physical(1, 1);
    trelm_priv_db* const attached = add_virtual(11, 1);
    EXPECT_EQ(attached->parent, second);
    trelm_priv_db* const expected[] = {bare, first, second, nullptr};
    EXPECT_THAT(order(), ElementsAre(9, 0, 1, 11));
    for (uint32_t instance = 0; instance < 4; ++instance) {
        EXPECT_EQ(trelm_get_pdb_from_user_instance(instance), expected[instance]);
        EXPECT_EQ(cursor(), expected[instance]);
        uint32_t found = 99;  // of a stranger: as many as there are
        EXPECT_EQ(trelm_get_instance_from_pdb(expected[instance], &found), 0U);
        EXPECT_EQ(found, instance);
        EXPECT_EQ(cursor(), expected[instance]);
    }
    EXPECT_EQ(trelm_get_pdb_from_user_handle(2), nullptr);
    second->hw_info->apihandle = 2;
    EXPECT_EQ(trelm_get_pdb_from_user_handle(2), second);
    EXPECT_EQ(cursor(), second);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(2, 0), second);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(2, 2), attached);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(2, 3), nullptr);
    EXPECT_EQ(cursor(), nullptr);

    set_debug_flags(kAllLines);
    const dorfc_pci_info there = location(1);
    EXPECT_EQ(trelm_get_hw_info_inst(&there), second->hw_info);
    EXPECT_EQ(trelm_get_parent_port(&there), second);
    EXPECT_EQ(trelm_get_pdb_from_user_handle(0), nullptr) << "though that of a closed port is 0";
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(0, 0), nullptr);
    EXPECT_EQ(log.take_text(),
              "trelm_get_hw_info_inst: entered.\ntrelm_get_hw_info_inst: exiting.\n"
              "trelm_get_parent_port: entered.\ntrelm_get_parent_port: exiting.\n"
              "trelm_get_pdb_from_user_handle: invalid handle\n"
              "trelm_get_vn_pdb_from_user_handle: invalid handle\n");
    for (auto part : {&dorfc_pci_info::domain_num, &dorfc_pci_info::bus_num, &dorfc_pci_info::device_num,
                      &dorfc_pci_info::function_num}) {
        dorfc_pci_info elsewhere = there;
        elsewhere.*part = 77;
        EXPECT_EQ(trelm_get_hw_info_inst(&elsewhere), nullptr);
        EXPECT_EQ(trelm_get_parent_port(&elsewhere), nullptr);
    }
    second->port_type = FC_PORTTYPE_NPIV;
    EXPECT_EQ(trelm_get_parent_port(&there), nullptr) << "no virtual port is a parent";
}

TEST_F(Registry, SaysSoWhereThereIsNoListOrNoMemoryForIt) {
    set_debug_flags(kErrorLines);
    const dorfc_pci_info at = location(0);
    uint32_t instance = 0;
    EXPECT_EQ(trelm_get_pdb_from_user_instance(0), nullptr);
    EXPECT_EQ(trelm_get_instance_from_pdb(nullptr, &instance), 1U);
    EXPECT_EQ(trelm_get_pdb_from_user_handle(1), nullptr);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(1, 0), nullptr);
    EXPECT_EQ(trelm_get_parent_port(&at), nullptr);
    EXPECT_EQ(trelm_get_hw_info_inst(&at), nullptr);
    trelm_free_pdb_element(nullptr);
    trelm_free_hw_info_element(nullptr);
    trelm_free_all_pdb_mem();
    trelm_free_all_hw_info_mem();
    // Whatever part of an allocation finds no memory, the whole list is gone afterwards.
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
                            "trelm_free_all_pdb_mem: no memory allocated for api_priv_data.",
                            "trelm_free_all_hw_info_mem: no memory allocated for api_phy_info.",
                            "trelm_alloc_pdb_mem: not enough memory for api_priv_data.",
                            "trelm_alloc_pdb_mem: not enough memory for api_priv_data instance.",
                            "trelm_alloc_pdb_mem: failed.", "trelm_alloc_pdb_mem: trelm_dlist_insert failed.",
                            "trelm_alloc_pdb_mem: failed.",
                            "trelm_alloc_hw_info_mem: not enough memory for api_phy_info.",
                            "trelm_alloc_hw_info_mem: not enough memory for api_phy_info instance.",
                            "trelm_alloc_hw_info_mem: failed."));
}

TEST_F(Registry, KnowsQuadPortAdaptersByAllFourIds) {
    const auto is_quad = [](uint16_t vendor, uint16_t device, uint16_t ssvendor, uint16_t ssdevice) {
        trelm_hw_info hw{};
        hw.vendor_id = vendor;
        hw.device_id = device;
        hw.ssvendor_id = ssvendor;
        hw.ssdevice_id = ssdevice;
        return trelm_is_quad_port_zr(&hw) == 0;
    };
    std::vector<std::pair<int, int>> quad;
    for (const uint16_t ssvendor : {0x1077, 0x193D, 0x1078, 0xFFFF}) {
        for (uint32_t i = 0; i <= 0xFFFF; ++i) {
            const auto ssdevice = static_cast<uint16_t>(i);
            if (is_quad(0x1077, 0x8080, ssvendor, ssdevice)) quad.emplace_back(ssvendor, ssdevice);
            ASSERT_FALSE(is_quad(0x1078, 0x8080, ssvendor, ssdevice));
            ASSERT_FALSE(is_quad(0x1077, 0x8081, ssvendor, ssdevice));
        }
    }
    EXPECT_THAT(quad, ElementsAre(std::pair(0x1077, 0x03), std::pair(0x1077, 0x04), std::pair(0x1077, 0x05),
                                  std::pair(0x1077, 0x06), std::pair(0x1077, 0x10), std::pair(0x1077, 0x36),
                                  std::pair(0x1077, 0x37), std::pair(0x193D, 0x1010)));
    EXPECT_FALSE(is_quad(0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF)) << "the end of the table";
}

TEST_F(Registry, DumpsAPortAndItsHardwareALineAField) {
    trelm_priv_db* const pdb = add_physical(11, 0x1F);
    trelm_hw_info& hw = *pdb->hw_info;
    strcpy(hw.phys_path, "/dev/char/vmkdriver/dorfc");
    memset(hw.manufacturer, 'm', sizeof hw.manufacturer);  // fills its field
    strcpy(hw.model_name, "name");
    strcpy(hw.model_desc, "desc");
    strcpy(hw.serial_num, "serial");
    strcpy(hw.driver_version, "1.2");
    strcpy(hw.driver_date, "today");
    memcpy(hw.driver_name, "sixteen-letters!", 16);
    strcpy(hw.fw_version, "3.4");
    hw.driver_loaded = 1;
    hw.vendor_id = 0x1077;
    hw.device_id = 0x8080;
    hw.ssvendor_id = 0x193D;
    hw.ssdevice_id = hw.pci_rev = 0x10;
    hw.npiv_count = 20;
    hw.phy_port_number = 4;
    pdb->host_no = 33;
    pdb->wwnn = 0x20000102CA570001;
    pdb->wwpn = UINT64_MAX;
    pdb->port_id = 0x10200;
    pdb->port_state = 12;
    pdb->port_sup_speed = 0x104;
    pdb->port_speed = 4;
    pdb->tgt_cnt = 10;
    pdb->fcf_cnt = 9;
    pdb->mtu = 2500;
    pdb->vlan = 1002;
    pdb->npiv_index = 16;
    const std::string title = " API Private Data:\n";
    const std::string address =
        " drvr_inst: 11\n host_no: 33\n wwnn: 20000102CA570001h\n"
        " wwpn: FFFFFFFFFFFFFFFFh\n port_id: 10200h\n";
    const std::string rest =
        " port_type: 3\n port_state: Ch\n port_sup_speed: 104h\n port_speed: 4\n"
        " tgt_cnt: Ah\n fcf_cnt: 9\n mtu: 2500\n vlan: 1002\n npiv_index: 16\n";
    set_debug_flags(2);
    trelm_print_priv_data(pdb);
    EXPECT_EQ(log.take_text(),
              title + " phys_path: /dev/char/vmkdriver/dorfc\n" + address +
                  " manufacturer: " + std::string(64, 'm') +
                  "\n model_name: name\n model_desc: desc\n serial_num: serial\n"
                  " driver_version: 1.2\n driver_date: today\n driver_name: sixteen-letters!\n"
                  " driver_loaded: 1\n fw_version: 3.4\n vendor_id: 1077h\n device_id: 8080h\n"
                  " ssvendor_id: 193Dh\n ssdevice_id: 10h\n pci_domain: 1\n pci_bus: 2\n"
                  " pci_dev: 3\n pci_func: 1Fh\n pci_rev: 10h\n npiv_count: 14h\n"
                  " phy port_number: 4\n" +
                  rest);
    pdb->hw_info = nullptr;
    trelm_print_priv_data(pdb);
    set_debug_flags(kErrorLines);
    trelm_print_priv_data(pdb);
    EXPECT_EQ(log.take_text(), title + address + rest);
}

TEST(Conversions, ReverseBytesAndCarryAddresses) {
    const uint64_t wwn = 0x0123456789ABCDEF;
    uint8_t bytes[10] = {};
    trelm_revcpy(bytes + 1, &wwn, 8);
    EXPECT_THAT(bytes, ElementsAre(0, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0));
    EXPECT_EQ(trelm_64bit_to_ptr(trelm_ptr_to_64bit(bytes)), bytes);
}

}  // namespace
