// The registry: a list of port records and a list of hardware records. The discoveries fill them. Both lists
// work alike: the functions are templates, and each list has its own messages.

#include "registry.h"

#include <cstdlib>

#include "trelm_dbg.h"
#include "trelm_gate.h"

trelm_dlist* trelm_priv_database = nullptr;
trelm_dlist* trelm_phy_info = nullptr;

const trelm_device_info trelm_quad_port_zr_list[9] = {
    {0x1077, 0x8080, 0x1077, 0x0036}, {0x1077, 0x8080, 0x1077, 0x0037}, {0x1077, 0x8080, 0x1077, 0x0003},
    {0x1077, 0x8080, 0x1077, 0x0004}, {0x1077, 0x8080, 0x1077, 0x0005}, {0x1077, 0x8080, 0x1077, 0x0006},
    {0x1077, 0x8080, 0x1077, 0x0010}, {0x1077, 0x8080, 0x193D, 0x1010}, {0xFFFF, 0xFFFF, 0xFFFF, 0xFFFF},
};

namespace {

using trelm::detail::error;
using trelm::detail::is_physical;
using trelm::detail::trace;

constexpr char kNoPortList[] = ": no memory allocated for api_priv_data";

// The log messages of one of the lists.
struct Messages {
    const char* free_all_name;
    const char* no_list;
    const char* no_record;
    const char* absent;
};

constexpr Messages kPorts = {"trelm_free_all_pdb_mem", ": not enough memory for api_priv_data.",
                             ": not enough memory for api_priv_data instance.",
                             ": no memory allocated for api_priv_data."};
constexpr Messages kHardware = {"trelm_free_all_hw_info_mem", ": not enough memory for api_phy_info.",
                                ": not enough memory for api_phy_info instance.",
                                ": no memory allocated for api_phy_info."};

void prepare(trelm_priv_db&) {}
void prepare(trelm_hw_info& hw) { hw.oshandle = -1; }

void drop_references(trelm_priv_db& pdb) {
    pdb.hw_info = nullptr;
    pdb.parent = nullptr;
}
void drop_references(trelm_hw_info&) {}

// The next record is inserted after the cursor. Only loads insert, and a load begins without a list, so no
// public call depends on the cursor. While several threads look up records, none moves the cursor, because
// they would contend for its cache line.
void rest_on(trelm_dlist* list, trelm_dl_node* node) {
    if (!trelm::detail::shares_registry()) list->marker = node;
}

// Finds the first record that matches. The cursor is set once, to that record or to the sentinel, and not at
// each step, because every public call comes here.
template <class Record, class Match>
Record* find(trelm_dlist* list, Match matches) {
    for (trelm_dl_node* node = list->head->next; node && node != list->head; node = node->next) {
        auto* record = static_cast<Record*>(node->data);
        if (!matches(*record)) continue;
        rest_on(list, node);
        return record;
    }
    rest_on(list, list->head);
    return nullptr;
}
template <class Match>
trelm_priv_db* find_port(Match matches) {
    return find<trelm_priv_db>(trelm_priv_database, matches);
}

template <class Record>
void free_all(const Messages& messages, trelm_dlist*& list) {
    if (!list) return error(messages.free_all_name, messages.absent);
    while (auto* last = static_cast<Record*>(trelm_dlist_pop(list))) {
        drop_references(*last);
        list->del_func(last);
    }
    trelm_dlist_destroy(list);
    list = nullptr;
}

template <class Record>
uint32_t alloc(const char* func, const Messages& messages, trelm_dlist*& list, Record** out) {
    trace(func, ": entered.");
    if (!list) list = trelm_dlist_new(sizeof(Record));
    if (!list) {
        error(func, messages.no_list);
        return 1;
    }
    auto* record = static_cast<Record*>(calloc(1, sizeof(Record)));
    if (!record || !trelm_dlist_insert(list, record, 1)) {
        error(func, record ? ": trelm_dlist_insert failed." : messages.no_record);
        error(func, ": failed.");
        free(record);
        free_all<Record>(messages, list);
        return 1;
    }
    prepare(*record);
    *out = record;
    trace(func, ": exiting sucessfully.");
    return 0;
}

template <class Record>
void free_element(const char* func, const Messages& messages, trelm_dlist* list, const Record* record) {
    trace(func, ": entered.");
    if (!list) return error(func, messages.absent);
    // Discovery removes only the record that it has just added. The cursor is still on it.
    const bool is_at_cursor = record && trelm_dlist_mark(list) == record;
    if (is_at_cursor || find<Record>(list, [record](const Record& each) { return &each == record; })) {
        drop_references(*static_cast<Record*>(trelm_dlist_mark(list)));
        trelm_dlist_delete(list, 1);
    }
    trace(func, ": exiting.");
}

bool has_handle(const trelm_priv_db& pdb, uint32_t handle) {
    return pdb.hw_info && __atomic_load_n(&pdb.hw_info->apihandle, __ATOMIC_ACQUIRE) == handle;
}

bool lies_at(const trelm_hw_info& hw, const dorfc_pci_info& at) {
    return hw.pci_domain == at.domain_num && hw.pci_bus == at.bus_num && hw.pci_dev == at.device_num &&
           hw.pci_func == at.function_num;
}

// Whether a look-up by handle must fail; logs why.
bool cannot_resolve(const char* func, uint32_t handle) {
    if (handle && trelm_priv_database) return false;
    error(func, handle ? kNoPortList : ": invalid handle");
    return true;
}

}  // namespace

uint32_t trelm_alloc_pdb_mem(trelm_priv_db** pdb) {
    return alloc(__func__, kPorts, trelm_priv_database, pdb);
}

uint32_t trelm_alloc_hw_info_mem(trelm_hw_info** hw) {
    return alloc(__func__, kHardware, trelm_phy_info, hw);
}

void trelm_free_pdb_element(trelm_priv_db* pdb) { free_element(__func__, kPorts, trelm_priv_database, pdb); }

void trelm_free_hw_info_element(trelm_hw_info* hw) { free_element(__func__, kHardware, trelm_phy_info, hw); }

void trelm_free_all_pdb_mem(void) { free_all<trelm_priv_db>(kPorts, trelm_priv_database); }

void trelm_free_all_hw_info_mem(void) { free_all<trelm_hw_info>(kHardware, trelm_phy_info); }

void trelm::detail::release_registry() {
    trelm_free_all_pdb_mem();
    trelm_free_all_hw_info_mem();
}

trelm_priv_db* trelm_get_pdb_from_user_instance(uint32_t instance) {
    if (!trelm_priv_database) {
        error(__func__, kNoPortList);
        return nullptr;
    }
    return find_port(
        [instance](const trelm_priv_db& pdb) mutable { return is_physical(pdb) && instance-- == 0; });
}

uint32_t trelm::detail::count_physical_ports() {
    uint32_t count = 0;
    find_port([&count](const trelm_priv_db& pdb) {
        count += is_physical(pdb);
        return false;
    });
    return count;
}

uint32_t trelm_get_instance_from_pdb(trelm_priv_db* pdb, uint32_t* instance) {
    if (!trelm_priv_database) {
        error(__func__, kNoPortList);
        return 1;
    }
    uint32_t before = 0;
    find_port([pdb, &before](const trelm_priv_db& candidate) {
        if (&candidate == pdb) return true;
        before += is_physical(candidate);
        return false;
    });
    *instance = before;
    return 0;
}

trelm_priv_db* trelm_get_pdb_from_user_handle(uint32_t handle) {
    if (cannot_resolve(__func__, handle)) return nullptr;
    return find_port(
        [handle](const trelm_priv_db& pdb) { return is_physical(pdb) && has_handle(pdb, handle); });
}

trelm_priv_db* trelm_get_vn_pdb_from_user_handle(uint32_t handle, uint32_t npiv_index) {
    if (cannot_resolve(__func__, handle)) return nullptr;
    return find_port([handle, npiv_index](const trelm_priv_db& pdb) {
        return has_handle(pdb, handle) && pdb.npiv_index == npiv_index;
    });
}

trelm_hw_info* trelm::detail::find_hw_info(const char* func_name, const dorfc_pci_info& at) {
    trace(func_name, ": entered.");
    if (!trelm_phy_info) {
        error(func_name, ": api_phy_info is NOT initialized. Exiting.");
        return nullptr;
    }
    trelm_hw_info* found =
        find<trelm_hw_info>(trelm_phy_info, [&at](const trelm_hw_info& hw) { return lies_at(hw, at); });
    trace(func_name, ": exiting.");
    return found;
}

trelm_priv_db* trelm::detail::find_parent(const char* func_name, const dorfc_pci_info& at) {
    trace(func_name, ": entered.");
    if (!trelm_priv_database) {
        error(func_name, kNoPortList);
        return nullptr;
    }
    trelm_priv_db* found = find_port([&at](const trelm_priv_db& pdb) {
        return is_physical(pdb) && pdb.hw_info && lies_at(*pdb.hw_info, at);
    });
    trace(func_name, ": exiting.");
    return found;
}

trelm_hw_info* trelm_get_hw_info_inst(const dorfc_pci_info* pci_info) {
    return trelm::detail::find_hw_info(__func__, *pci_info);
}

trelm_priv_db* trelm_get_parent_port(const dorfc_pci_info* pci_info) {
    return trelm::detail::find_parent(__func__, *pci_info);
}

uint32_t trelm_is_quad_port_zr(const trelm_hw_info* hw) {
    for (const trelm_device_info* row = trelm_quad_port_zr_list; row->device_id != 0xFFFF; ++row) {
        if (row->vendor_id == hw->vendor_id && row->device_id == hw->device_id &&
            row->ssvendor_id == hw->ssvendor_id && row->ssdevice_id == hw->ssdevice_id) {
            return 0;
        }
    }
    return 1;
}

void trelm_revcpy(void* dst, const void* src, size_t size) {
    auto* to = static_cast<uint8_t*>(dst);
    const auto* from = static_cast<const uint8_t*>(src);
    for (size_t i = 0; i < size; ++i) to[i] = from[size - 1 - i];
}

uint64_t trelm_ptr_to_64bit(const void* address) { return reinterpret_cast<uintptr_t>(address); }

void* trelm_64bit_to_ptr(uint64_t address) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(address));
}
