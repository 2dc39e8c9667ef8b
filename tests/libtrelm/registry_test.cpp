// registry_test.cpp - the registry of ports: its records, what they need, and its messages. A fuzz target tests
// look-ups, the order of records and the cursor over sequences of calls.
#include "support/failing_allocation.h"
#include "support/story.h"

namespace {

using namespace trelm::test;

class GoldenRegistry : public GoldenStory {
  protected:
    ~GoldenRegistry() override {
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
    }

    trelm_priv_db* pdb = nullptr;
    trelm_hw_info* hw = nullptr;
};
TRELM_IN_EACH_CATEGORY(GoldenRegistry);

TEST_P(GoldenRegistry, AddsEmptyRecordsAndReleasesThem) {
    TELL(trelm_alloc_pdb_mem(&pdb));
    TELL(trelm_alloc_hw_info_mem(&hw));
    trelm_hw_info empty{};
    empty.oshandle = -1;
    const trelm_priv_db zero{};
    EXPECT_EQ(memcmp(hw, &empty, sizeof empty), 0);
    EXPECT_EQ(memcmp(pdb, &zero, sizeof zero), 0);
    TELL((trelm_free_pdb_element(pdb), trelm_phy_info->count));
    TELL((trelm_free_hw_info_element(hw), trelm_phy_info->count));
    EXPECT_EQ(trelm_priv_database->count, 0U);
    TELL(trelm_get_pdb_from_user_handle(0) == nullptr);
    TELL(trelm_get_vn_pdb_from_user_handle(0, 0) == nullptr);
    story.expect_golden("registry");
}

TEST_P(GoldenRegistry, RefusesCallsWithoutAList) {
    const dorfc_pci_info at{};
    uint32_t instance = 0;
    TELL(trelm_get_pdb_from_user_instance(0) == nullptr);
    TELL(trelm_get_instance_from_pdb(nullptr, &instance));
    TELL(trelm_get_pdb_from_user_handle(1) == nullptr);
    TELL(trelm_get_vn_pdb_from_user_handle(1, 0) == nullptr);
    TELL(trelm_get_parent_port(&at) == nullptr);
    TELL(trelm_get_hw_info_inst(&at) == nullptr);
    TELL((trelm_free_pdb_element(nullptr), 0));
    TELL((trelm_free_hw_info_element(nullptr), 0));
    story.expect_golden("registry_without_list");
}

TEST_P(GoldenRegistry, ReleasesTheWholeListIfMemoryRunsOut) {
    for (const size_t size : {sizeof(trelm_dlist), sizeof(trelm_priv_db), sizeof(trelm_dl_node)}) {
        if (size == sizeof(trelm_dl_node)) TELL(trelm_alloc_pdb_mem(&pdb));
        const FailingAllocation fail(size);
        TELL(trelm_alloc_pdb_mem(&pdb));
        EXPECT_EQ(trelm_priv_database, nullptr);
    }
    for (const size_t size : {sizeof(trelm_dlist), sizeof(trelm_hw_info)}) {
        const FailingAllocation fail(size);
        TELL(trelm_alloc_hw_info_mem(&hw));
        EXPECT_EQ(trelm_phy_info, nullptr);
    }
    story.expect_golden("registry_without_memory");
}

TEST(Registry, KnowsQuadPortAdaptersByAllFourIds) {
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
    EXPECT_EQ(quad, (std::vector<uint32_t>{0x03, 0x04, 0x05, 0x06, 0x10, 0x36, 0x37, 0x11010}));
}

}  // namespace
