// registry_test.cpp - the registry of ports: the order in which records stand, look-ups, releases, and the
// dump.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "host.h"
#include "hosts.h"
#include "support/failing_allocation.h"
#include "support/log_capture.h"
#include "trelm_core.h"

namespace {

using namespace trelm::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

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

    // A record as a discovery adds it: a physical port at a PCI function, numbered by its drvr_inst.
    static trelm_priv_db* add_physical(uint32_t number, uint16_t function) {
        trelm_priv_db* pdb = nullptr;
        EXPECT_EQ(trelm_alloc_pdb_mem(&pdb), 0U);
        EXPECT_EQ(trelm_alloc_hw_info_mem(&pdb->hw_info), 0U);
        pdb->drvr_inst = number;
        pdb->port_type = FC_PORTTYPE_NPORT;
        pdb->hw_info->pci_domain = 1;
        pdb->hw_info->pci_bus = 2;
        pdb->hw_info->pci_dev = 3;
        pdb->hw_info->pci_func = function;
        return pdb;
    }
    static trelm_priv_db* add_virtual(uint32_t number, uint16_t function, uint32_t npiv_index = 1) {
        trelm_priv_db* pdb = nullptr;
        EXPECT_EQ(trelm_alloc_pdb_mem(&pdb), 0U);
        pdb->drvr_inst = number;
        pdb->port_type = FC_PORTTYPE_NPIV;
        pdb->npiv_index = npiv_index;
        const dorfc_pci_info at = location(function);
        pdb->hw_info = trelm_get_hw_info_inst(&at);
        pdb->parent = trelm_get_parent_port(&at);
        return pdb;
    }
    static std::vector<uint32_t> order() {
        std::vector<uint32_t> numbers;
        if (!trelm_priv_database) return numbers;
        const trelm_dl_node* head = trelm_priv_database->head;
        for (const trelm_dl_node* node = head->next; node != head; node = node->next)
            numbers.push_back(static_cast<trelm_priv_db*>(node->data)->drvr_inst);
        return numbers;
    }
    static void* cursor() { return trelm_dlist_mark(trelm_priv_database); }

    hostsim::Host host{hostsim::hosts::empty()};
    LogCapture log{kSilent};
};

TEST_F(Registry, AddsEmptyRecordsBehindWhatWasLastLookedUp) {
    trelm_priv_db* pdb = nullptr;
    trelm_hw_info* hw = nullptr;
    ASSERT_EQ(trelm_alloc_pdb_mem(&pdb), 0U);
    ASSERT_EQ(trelm_alloc_hw_info_mem(&hw), 0U);
    trelm_hw_info empty{};
    empty.oshandle = -1;
    EXPECT_EQ(memcmp(hw, &empty, sizeof empty), 0);
    const trelm_priv_db zero{};
    EXPECT_EQ(memcmp(pdb, &zero, sizeof zero), 0);
    trelm_free_all_pdb_mem();
    add_physical(0, 0);
    add_virtual(10, 0);
    add_physical(1, 1);
    EXPECT_THAT(order(), ElementsAre(0, 1, 10));
    add_virtual(11, 1);
    EXPECT_THAT(order(), ElementsAre(0, 1, 11, 10));
    add_virtual(12, 7);  // of no port that there is
    EXPECT_EQ(cursor(), nullptr);
    add_physical(2, 2);
    EXPECT_THAT(order(), ElementsAre(2, 0, 1, 12, 11, 10));
    EXPECT_EQ(trelm_get_pdb_from_user_instance(0)->drvr_inst, 2U);
}

TEST_F(Registry, FindsPhysicalPortsByTheirInstance) {
    trelm_priv_db* const first = add_physical(0, 0);
    trelm_priv_db* const second = add_physical(1, 1);
    trelm_priv_db* const of_second = add_virtual(11, 1);
    const dorfc_pci_info end = location(9);
    trelm_get_parent_port(&end);
    trelm_priv_db* const third = add_virtual(10, 0);
    third->port_type = FC_PORTTYPE_UNKNOWN;  // anything but a virtual port counts
    EXPECT_THAT(order(), ElementsAre(10, 0, 1, 11));
    trelm_priv_db* const expected[] = {third, first, second, nullptr};
    for (uint32_t instance = 0; instance < 4; ++instance) {
        EXPECT_EQ(trelm_get_pdb_from_user_instance(instance), expected[instance]);
        EXPECT_EQ(cursor(), expected[instance]);
        if (!expected[instance]) continue;
        uint32_t found = 99;
        EXPECT_EQ(trelm_get_instance_from_pdb(expected[instance], &found), 0U);
        EXPECT_EQ(found, instance);
        EXPECT_EQ(cursor(), expected[instance]);
    }
    EXPECT_EQ(trelm_get_pdb_from_user_instance(UINT32_MAX), nullptr);
    uint32_t found = 99;
    trelm_priv_db stranger{};
    for (trelm_priv_db* other : {&stranger, of_second}) {
        EXPECT_EQ(trelm_get_instance_from_pdb(other, &found), 0U);
        EXPECT_EQ(found, 3U);  // the physical ones before it, or all of them
    }
}

TEST_F(Registry, FindsPortsByTheHandleOfTheirHardware) {
    trelm_priv_db* const bare = add_virtual(9, 0, 2);
    bare->port_type = FC_PORTTYPE_NPORT;  // without a hardware record
    trelm_priv_db* const first = add_physical(0, 0);
    trelm_priv_db* const second = add_physical(1, 1);
    add_virtual(11, 1, 2);
    add_virtual(12, 1, 2);  // the same again goes before it
    trelm_get_pdb_from_user_instance(0);
    EXPECT_EQ(trelm_get_pdb_from_user_handle(2), nullptr);
    second->hw_info->apihandle = 2;
    EXPECT_EQ(trelm_get_pdb_from_user_handle(2), second);
    EXPECT_EQ(cursor(), second);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(2, 0), second);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(2, 2)->drvr_inst, 12U);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(2, 3), nullptr);
    EXPECT_EQ(cursor(), nullptr);
    second->npiv_index = 2;
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(2, 2), second);

    set_debug_flags(kErrorLines);
    EXPECT_EQ(first->hw_info->apihandle, 0U);  // and yet not found by 0
    EXPECT_EQ(trelm_get_pdb_from_user_handle(0), nullptr);
    EXPECT_EQ(trelm_get_vn_pdb_from_user_handle(0, 0), nullptr);
    EXPECT_THAT(log.take(), ElementsAre("trelm_get_pdb_from_user_handle: invalid handle",
                                        "trelm_get_vn_pdb_from_user_handle: invalid handle"));
}

TEST_F(Registry, FindsRecordsByAllFourPartsOfTheirPciLocation) {
    add_virtual(9, 0)->port_type = FC_PORTTYPE_NPORT;
    trelm_priv_db* const second = (add_physical(0, 0), add_physical(1, 1));
    trelm_priv_db* const attached = add_virtual(11, 1);
    const dorfc_pci_info there = location(1);
    set_debug_flags(kAllLines);
    EXPECT_EQ(trelm_get_hw_info_inst(&there), second->hw_info);
    EXPECT_EQ(trelm_dlist_mark(trelm_phy_info), second->hw_info);
    EXPECT_EQ(trelm_get_parent_port(&there), second);
    EXPECT_THAT(log.take(),
                ElementsAre("trelm_get_hw_info_inst: entered.", "trelm_get_hw_info_inst: exiting.",
                            "trelm_get_parent_port: entered.", "trelm_get_parent_port: exiting."));
    for (auto part : {&dorfc_pci_info::domain_num, &dorfc_pci_info::bus_num, &dorfc_pci_info::device_num,
                      &dorfc_pci_info::function_num}) {
        dorfc_pci_info elsewhere = there;
        elsewhere.*part = 77;
        EXPECT_EQ(trelm_get_hw_info_inst(&elsewhere), nullptr);
        EXPECT_EQ(trelm_get_parent_port(&elsewhere), nullptr);
    }
    second->port_type = FC_PORTTYPE_NPIV;  // no virtual port is a parent
    EXPECT_EQ(trelm_get_parent_port(&there), nullptr);
    EXPECT_EQ(attached->parent, second);
}

TEST_F(Registry, SaysSoWhereThereIsNoList) {
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
                            "trelm_free_all_hw_info_mem: no memory allocated for api_phy_info."));
}

TEST_F(Registry, ReleasesOneRecordAndLeavesTheCursorBehindIt) {
    trelm_priv_db* const first = add_physical(0, 0);
    trelm_priv_db* const second = add_physical(1, 1);
    trelm_priv_db* const third = add_physical(2, 2);
    set_debug_flags(kAllLines);
    trelm_free_pdb_element(second);
    EXPECT_THAT(log.take(),
                ElementsAre("trelm_free_pdb_element: entered.", "trelm_free_pdb_element: exiting."));
    EXPECT_THAT(order(), ElementsAre(0, 2));
    EXPECT_EQ(cursor(), third);
    trelm_priv_db stranger{};
    trelm_free_pdb_element(&stranger);
    EXPECT_EQ(cursor(), nullptr);
    trelm_free_pdb_element(third);
    EXPECT_EQ(cursor(), nullptr);
    EXPECT_THAT(order(), ElementsAre(0));
    EXPECT_EQ(trelm_phy_info->count, 3U);  // hardware records are no business of the port list

    trelm_free_hw_info_element(first->hw_info);
    EXPECT_EQ(trelm_phy_info->count, 2U);
    trelm_free_pdb_element(first);
    EXPECT_NE(trelm_priv_database, nullptr);  // an empty list is still there
    add_physical(5, 5);
    EXPECT_THAT(order(), ElementsAre(5));
    trelm_free_all_pdb_mem();
    EXPECT_EQ(trelm_priv_database, nullptr);
    EXPECT_EQ(trelm_phy_info->count, 3U);
    trelm_free_all_hw_info_mem();
    EXPECT_EQ(trelm_phy_info, nullptr);
}

// Whatever part of an allocation finds no memory, the whole list is gone afterwards.
template <typename Record>
void expect_release(uint32_t (*allocate)(Record**), trelm_dlist*& list, LogCapture& log,
                    const std::string& function, const std::string& name) {
    struct {
        bool first;
        size_t size;
        std::vector<std::string> lines;
    } const cases[] = {
        {true, sizeof(trelm_dlist), {": not enough memory for " + name + "."}},
        {true, sizeof(Record), {": not enough memory for " + name + " instance.", ": failed."}},
        {false, sizeof(Record), {": not enough memory for " + name + " instance.", ": failed."}},
        {false, sizeof(trelm_dl_node), {": trelm_dlist_insert failed.", ": failed."}},
    };
    for (const auto& c : cases) {
        Record* record = nullptr;
        if (!c.first) allocate(&record);
        log.take();
        uint32_t result = 0;
        {
            FailingAllocation fail(c.size);
            result = allocate(&record);
        }
        EXPECT_EQ(result, 1U);
        EXPECT_EQ(list, nullptr);
        std::vector<std::string> expected;
        for (const std::string& line : c.lines) expected.push_back(function + line);
        EXPECT_EQ(log.take_of(function), expected);
    }
}

TEST_F(Registry, LosesAListThatFindsNoMemory) {
    set_debug_flags(kErrorLines);
    expect_release(trelm_alloc_pdb_mem, trelm_priv_database, log, "trelm_alloc_pdb_mem", "api_priv_data");
    expect_release(trelm_alloc_hw_info_mem, trelm_phy_info, log, "trelm_alloc_hw_info_mem", "api_phy_info");
}

TEST_F(Registry, KnowsQuadPortAdaptersByAllFourIds) {
    const std::vector<std::pair<uint16_t, uint16_t>> quad = {{0x1077, 0x36}, {0x1077, 0x37},  {0x1077, 0x03},
                                                             {0x1077, 0x04}, {0x1077, 0x05},  {0x1077, 0x06},
                                                             {0x1077, 0x10}, {0x193D, 0x1010}};
    const auto test = [](uint16_t vendor, uint16_t device, uint16_t ssvendor, uint16_t ssdevice) {
        trelm_hw_info hw{};
        hw.vendor_id = vendor;
        hw.device_id = device;
        hw.ssvendor_id = ssvendor;
        hw.ssdevice_id = ssdevice;
        return trelm_is_quad_port_zr(&hw);
    };
    uint32_t found = 0;
    for (uint32_t ssdevice = 0; ssdevice <= 0xFFFF; ++ssdevice) {
        for (uint16_t ssvendor : {0x1077, 0x193D})
            found += test(0x1077, 0x8080, ssvendor, static_cast<uint16_t>(ssdevice)) == 0;
    }
    EXPECT_EQ(found, quad.size());
    for (const auto& [ssvendor, ssdevice] : quad) {
        EXPECT_EQ(test(0x1077, 0x8080, ssvendor, ssdevice), 0U);
        EXPECT_EQ(test(0x1078, 0x8080, ssvendor, ssdevice), 1U);
        EXPECT_EQ(test(0x1077, 0x8081, ssvendor, ssdevice), 1U);
        EXPECT_EQ(test(0x1077, 0x8080, 0x1078, ssdevice), 1U);
    }
    EXPECT_EQ(test(0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF), 1U);
    EXPECT_EQ(trelm_quad_port_zr_list[8].device_id, 0xFFFF);
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
    hw.ssdevice_id = 0x10;
    hw.pci_rev = 0xA;
    hw.npiv_count = 20;
    hw.phy_port_number = 4;
    pdb->host_no = 33;
    pdb->wwnn = 0x20000102CA570001;
    pdb->wwpn = 0xFFFFFFFFFFFFFFFF;
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
    const std::string hardware = " manufacturer: " + std::string(64, 'm') +
                                 "\n model_name: name\n model_desc: desc\n serial_num: serial\n"
                                 " driver_version: 1.2\n driver_date: today\n driver_name: sixteen-letters!\n"
                                 " driver_loaded: 1\n fw_version: 3.4\n vendor_id: 1077h\n device_id: 8080h\n"
                                 " ssvendor_id: 193Dh\n ssdevice_id: 10h\n pci_domain: 1\n pci_bus: 2\n"
                                 " pci_dev: 3\n pci_func: 1Fh\n pci_rev: Ah\n npiv_count: 14h\n"
                                 " phy port_number: 4\n";
    const std::string rest =
        " port_type: 3\n port_state: Ch\n port_sup_speed: 104h\n port_speed: 4\n"
        " tgt_cnt: Ah\n fcf_cnt: 9\n mtu: 2500\n vlan: 1002\n npiv_index: 16\n";

    set_debug_flags(2);
    trelm_print_priv_data(pdb);
    EXPECT_EQ(log.take_text(), title + " phys_path: /dev/char/vmkdriver/dorfc\n" + address + hardware + rest);
    pdb->hw_info = nullptr;
    trelm_print_priv_data(pdb);
    EXPECT_EQ(log.take_text(), title + address + rest);
    set_debug_flags(kErrorLines);
    trelm_print_priv_data(pdb);
    EXPECT_THAT(log.take(), IsEmpty());
}

TEST(Conversions, ReverseBytesAndCarryAddresses) {
    const uint64_t wwn = 0x0123456789ABCDEF;
    uint8_t bytes[10] = {0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE, 0xEE};
    trelm_revcpy(bytes + 1, &wwn, 0);
    EXPECT_THAT(bytes, ::testing::Each(0xEE));
    trelm_revcpy(bytes + 1, &wwn, 8);
    EXPECT_THAT(bytes, ElementsAre(0xEE, 0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF, 0xEE));
    EXPECT_EQ(trelm_ptr_to_64bit(bytes), reinterpret_cast<uintptr_t>(bytes));
    EXPECT_EQ(trelm_64bit_to_ptr(trelm_ptr_to_64bit(bytes)), bytes);
    EXPECT_EQ(trelm_ptr_to_64bit(nullptr), 0U);
}

}  // namespace
