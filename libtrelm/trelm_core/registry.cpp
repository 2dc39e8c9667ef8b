// The registry: two lists, one of port records and one of hardware records, filled by the discoveries and
// read by everything else. Both work alike, so what one list does is written once and each says only its
// names.

#include <cstdlib>

#include "trelm_core.h"
#include "trelm_core/discovery.h"
#include "trelm_core/location_index.h"
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
using trelm::detail::trace;

constexpr uint16_t kSupportedDevices[] = {0x165C, 0x1662, 0x1663, 0x168A, 0x168E, 0x16A1,
                                          0x16A2, 0x16A4, 0x16A5, 0x16AE, 0x8080, 0x8180};

constexpr char kNoPortList[] = ": no memory allocated for api_priv_data";

void prepare(trelm_priv_db&) {}
void prepare(trelm_hw_info& hw) { hw.oshandle = -1; }

void drop_references(trelm_priv_db& pdb) {
    pdb.hw_info = nullptr;
    pdb.parent = nullptr;
}
void drop_references(trelm_hw_info&) {}

// One of the two lists: where it hangs, and its messages.
template <class Record>
struct Roster {
    trelm_dlist*& list;
    const char* no_list;
    const char* no_record;
    const char* absent;

    // Walks from the sentinel; the cursor rests on what is found, or on the sentinel. It is not moved step by
    // step: every call of the library comes through here.
    template <class Match>
    Record* find(Match matches, trelm_dl_node* trelm_dl_node::*step = &trelm_dl_node::next) const {
        for (trelm_dl_node* node = list->head->*step; node && node != list->head; node = node->*step) {
            auto* record = static_cast<Record*>(node->data);
            if (!matches(*record)) continue;
            rest_on(node);
            return record;
        }
        rest_on(list->head);
        return nullptr;
    }

    // No public call depends on where the cursor rests: it says where the next record goes, records are added
    // by loads alone, and a load begins with no list. So while several threads look up, none moves it, and
    // they share no line that is written.
    void rest_on(trelm_dl_node* node) const {
        if (!trelm::detail::shares_registry()) list->marker = node;
    }

    // The same where the index of a discovery knows how such a walk would end.
    template <class Match>
    Record* find(trelm::detail::Place place, Match matches) const {
        if (!place.known) return find(matches);
        list->marker = place.node ? place.node : list->head;
        return place.node ? static_cast<Record*>(place.node->data) : nullptr;
    }

    void free_all(const char* func) const {
        if (!list) return error(func, absent);
        while (auto* last = static_cast<Record*>(trelm_dlist_pop(list))) {
            drop_references(*last);
            list->del_func(last);
        }
        trelm_dlist_destroy(list);
        list = nullptr;
    }

    uint32_t alloc(const char* func, const char* free_all_func, Record** out) const {
        trace(func, ": entered.");
        if (!list) list = trelm_dlist_new(sizeof(Record));
        if (!list) {
            error(func, no_list);
            return 1;
        }
        auto* record = static_cast<Record*>(calloc(1, sizeof(Record)));
        if (!record || !trelm_dlist_insert(list, record, 1)) {
            error(func, record ? ": trelm_dlist_insert failed." : no_record);
            error(func, ": failed.");
            free(record);
            free_all(free_all_func);
            return 1;
        }
        prepare(*record);
        *out = record;
        trace(func, ": exiting sucessfully.");
        return 0;
    }

    void free_element(const char* func, const Record* record) const {
        trace(func, ": entered.");
        if (!list) return error(func, absent);
        if (Record* found = find([record](const Record& candidate) { return &candidate == record; },
                                 &trelm_dl_node::prev)) {
            drop_references(*found);
            trelm_dlist_delete(list, 1);
        }
        trace(func, ": exiting.");
    }
};

const Roster<trelm_priv_db> ports = {trelm_priv_database, ": not enough memory for api_priv_data.",
                                     ": not enough memory for api_priv_data instance.",
                                     ": no memory allocated for api_priv_data."};
const Roster<trelm_hw_info> hardware = {trelm_phy_info, ": not enough memory for api_phy_info.",
                                        ": not enough memory for api_phy_info instance.",
                                        ": no memory allocated for api_phy_info."};

bool is_physical(const trelm_priv_db& pdb) { return pdb.port_type != FC_PORTTYPE_NPIV; }

bool has_handle(const trelm_priv_db& pdb, uint32_t handle) {
    return pdb.hw_info && __atomic_load_n(&pdb.hw_info->apihandle, __ATOMIC_ACQUIRE) == handle;
}

bool lies_at(const trelm_hw_info& hw, const dorfc_pci_info& at) {
    return hw.pci_domain == at.domain_num && hw.pci_bus == at.bus_num && hw.pci_dev == at.device_num &&
           hw.pci_func == at.function_num;
}

// What both handle look-ups refuse, with the message that says so.
bool cannot_resolve(const char* func, uint32_t handle) {
    if (handle && trelm_priv_database) return false;
    error(func, handle ? kNoPortList : ": invalid handle");
    return true;
}

}  // namespace

bool trelm::detail::is_supported_device(uint16_t device_id) {
    for (uint16_t supported : kSupportedDevices) {
        if (device_id == supported) return true;
    }
    return false;
}

uint32_t trelm_alloc_pdb_mem(trelm_priv_db** pdb) {
    return ports.alloc(__func__, "trelm_free_all_pdb_mem", pdb);
}

uint32_t trelm_alloc_hw_info_mem(trelm_hw_info** hw) {
    return hardware.alloc(__func__, "trelm_free_all_hw_info_mem", hw);
}

void trelm_free_pdb_element(trelm_priv_db* pdb) { ports.free_element(__func__, pdb); }

void trelm_free_hw_info_element(trelm_hw_info* hw) { hardware.free_element(__func__, hw); }

void trelm_free_all_pdb_mem(void) { ports.free_all(__func__); }

void trelm_free_all_hw_info_mem(void) { hardware.free_all(__func__); }

void trelm::detail::release_registry() {
    trelm_free_all_pdb_mem();
    trelm_free_all_hw_info_mem();
}

trelm_priv_db* trelm_get_pdb_from_user_instance(uint32_t instance) {
    if (!trelm_priv_database) {
        error(__func__, kNoPortList);
        return nullptr;
    }
    return ports.find(
        [instance](const trelm_priv_db& pdb) mutable { return is_physical(pdb) && instance-- == 0; });
}

uint32_t trelm::detail::count_physical_ports() {
    uint32_t count = 0;
    ports.find([&count](const trelm_priv_db& pdb) {
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
    ports.find([pdb, &before](const trelm_priv_db& candidate) {
        if (&candidate == pdb) return true;
        before += is_physical(candidate);
        return false;
    });
    *instance = before;
    return 0;
}

trelm_priv_db* trelm_get_pdb_from_user_handle(uint32_t handle) {
    if (cannot_resolve(__func__, handle)) return nullptr;
    return ports.find(
        [handle](const trelm_priv_db& pdb) { return is_physical(pdb) && has_handle(pdb, handle); });
}

trelm_priv_db* trelm_get_vn_pdb_from_user_handle(uint32_t handle, uint32_t npiv_index) {
    if (cannot_resolve(__func__, handle)) return nullptr;
    return ports.find([handle, npiv_index](const trelm_priv_db& pdb) {
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
        hardware.find(hardware_place(at), [&at](const trelm_hw_info& hw) { return lies_at(hw, at); });
    trace(func_name, ": exiting.");
    return found;
}

trelm_priv_db* trelm::detail::find_parent(const char* func_name, const dorfc_pci_info& at) {
    trace(func_name, ": entered.");
    if (!trelm_priv_database) {
        error(func_name, kNoPortList);
        return nullptr;
    }
    trelm_priv_db* found = ports.find(port_place(at), [&at](const trelm_priv_db& pdb) {
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
