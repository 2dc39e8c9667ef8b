// registry.cpp - random sequences of additions, removals and look-ups in the registry, compared with a plain
// model.
#include "list_model.h"
#include "trelm_core.h"

namespace {

Model ports;

trelm_priv_db& port(void* item) { return *static_cast<trelm_priv_db*>(item); }
bool is_physical(void* item) { return port(item).port_type != FC_PORTTYPE_NPIV; }

void add(uint32_t number, uint32_t index) {
    trelm_priv_db* pdb = nullptr;
    REQUIRE(trelm_alloc_pdb_mem(&pdb) == 0 && trelm_alloc_hw_info_mem(&pdb->hw_info) == 0);
    ports.insert(pdb, true);
    pdb->port_type = number % 2 ? FC_PORTTYPE_NPIV : FC_PORTTYPE_NPORT;
    pdb->npiv_index = index;
    pdb->hw_info->apihandle = 1 + number / 4;
    pdb->hw_info->pci_func = static_cast<uint16_t>(index);
}

void release(uint32_t number, uint32_t) {
    void* const gone = number < ports.items.size() ? ports.items[number] : nullptr;
    trelm_free_pdb_element(static_cast<trelm_priv_db*>(gone));
    if (ports.find([&](void* item) { return item == gone; })) ports.remove(ports.cursor, true);
}

void find_instance(uint32_t number, uint32_t) {
    uint32_t before = 0;
    REQUIRE(trelm_get_pdb_from_user_instance(number) ==
            ports.find([&](void* item) { return is_physical(item) && before++ == number; }));
}

// Look-ups by handle and by location.
void find_port(uint32_t number, uint32_t index) {
    dorfc_pci_info at{};
    at.function_num = static_cast<uint16_t>(index);
    REQUIRE(trelm_get_parent_port(&at) == ports.find([&](void* item) {
        return is_physical(item) && port(item).hw_info->pci_func == index;
    }));
    REQUIRE(trelm_get_vn_pdb_from_user_handle(1 + number / 4, index) == ports.find([&](void* item) {
        return port(item).hw_info->apihandle == 1 + number / 4 && port(item).npiv_index == index;
    }));
}

constexpr void (*kOperations[])(uint32_t, uint32_t) = {add, add, release, find_instance, find_port};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    add(0, 0);
    for (trelm::fuzz::Input input(data, size); !input.empty(); ports.check(trelm_priv_database)) {
        const auto operation = kOperations[input.below(std::size(kOperations))];
        const uint32_t number = input.below(16);
        operation(number, input.below(4));
    }
    trelm_free_all_pdb_mem();
    trelm_free_all_hw_info_mem();
    ports = {};
    return 0;
}
