// The index of a discovery: a hash table with open addressing, made when the first virtual port asks, so that
// a host without virtual ports does not pay for it.

#include "trelm_core/location_index.h"

#include <cstdlib>

#include "trelm_owners.h"

namespace {

constexpr size_t kFirstCapacity = 64;

trelm::detail::LocationIndex* current = nullptr;  // of the discovery that is under way

uint64_t location_of(const trelm_hw_info& hw) {
    return uint64_t{hw.pci_domain} << 48 | uint64_t{hw.pci_bus} << 32 | uint64_t{hw.pci_dev} << 16 |
           hw.pci_func;
}

uint64_t location_of(const dorfc_pci_info& at) {
    return uint64_t{at.domain_num} << 48 | uint64_t{at.bus_num} << 32 | uint64_t{at.device_num} << 16 |
           at.function_num;
}

const trelm_hw_info* hardware_of(const trelm_dl_node* node) {
    return static_cast<const trelm_hw_info*>(node->data);
}

const trelm_priv_db* port_of(const trelm_dl_node* node) {
    return static_cast<const trelm_priv_db*>(node->data);
}

bool is_findable(const trelm_priv_db& pdb) { return pdb.port_type != FC_PORTTYPE_NPIV && pdb.hw_info; }

// Neighbouring locations differ in a few bits; the multiplication spreads them over the upper ones.
size_t hash(uint64_t location) { return static_cast<size_t>(location * 0x9E3779B97F4A7C15u >> 32); }

template <class Visit>
void visit_all(const trelm_dlist* list, Visit visit) {
    if (!list || !list->count) return;
    for (trelm_dl_node* node = list->head->next; node != list->head; node = node->next) visit(node);
}

}  // namespace

trelm::detail::LocationIndex::LocationIndex() { current = this; }

trelm::detail::LocationIndex::~LocationIndex() {
    current = nullptr;
    give_up();
}

void trelm::detail::LocationIndex::give_up() {
    const ErrnoKeeper keep;
    free(entries_);
    entries_ = nullptr;
    capacity_ = count_ = 0;
    usable_ = false;
}

// The entry of the location, or the free one where it belongs.
trelm::detail::LocationIndex::Entry& trelm::detail::LocationIndex::slot(uint64_t location) const {
    size_t at = hash(location) & (capacity_ - 1);
    while (entries_[at].taken && entries_[at].location != location) at = (at + 1) & (capacity_ - 1);
    return entries_[at];
}

// Keeps half of the table free. False when memory is exhausted.
bool trelm::detail::LocationIndex::reserve() {
    if (entries_ && 2 * (count_ + 1) <= capacity_) return true;
    const size_t wanted = capacity_ ? 2 * capacity_ : kFirstCapacity;
    Heap<Entry> grown(wanted);
    if (!grown) return false;
    Entry* const old = entries_;
    const size_t old_capacity = capacity_;
    entries_ = grown.let_go();
    capacity_ = wanted;
    for (size_t i = 0; old && i < old_capacity; ++i) {
        if (old[i].taken) slot(old[i].location) = old[i];
    }
    free(old);
    return true;
}

void trelm::detail::LocationIndex::note(uint64_t location, trelm_dl_node* Entry::*kind, trelm_dl_node* node) {
    if (!usable_) return;
    if (!reserve()) return give_up();
    Entry& entry = slot(location);
    if (!entry.taken) ++count_;
    entry.taken = true;
    entry.location = location;
    if (entry.*kind) entry.several = true;
    entry.*kind = node;
}

bool trelm::detail::LocationIndex::build() {
    if (!reserve()) {
        give_up();
        return false;
    }
    visit_all(trelm_phy_info,
              [this](trelm_dl_node* node) { note(location_of(*hardware_of(node)), &Entry::hardware, node); });
    visit_all(trelm_priv_database, [this](trelm_dl_node* node) {
        const trelm_priv_db& pdb = *port_of(node);
        if (is_findable(pdb)) note(location_of(*pdb.hw_info), &Entry::port, node);
    });
    return usable_;
}

void trelm::detail::LocationIndex::add_newest() {
    if (!entries_) return;
    trelm_dl_node* port = trelm_priv_database->marker;
    trelm_dl_node* hardware = trelm_phy_info->marker;
    if (port_of(port)->hw_info != hardware_of(hardware)) return give_up();
    const uint64_t location = location_of(*hardware_of(hardware));
    note(location, &Entry::hardware, hardware);
    note(location, &Entry::port, port);
}

const trelm::detail::LocationIndex::Entry* trelm::detail::LocationIndex::find(const dorfc_pci_info& at) {
    if (!usable_ || (!entries_ && !build())) return nullptr;
    const Entry& entry = slot(location_of(at));
    return entry.several ? nullptr : &entry;
}

void trelm::detail::index_newest_port() {
    if (current) current->add_newest();
}

trelm::detail::Place trelm::detail::hardware_place(const dorfc_pci_info& at) {
    const auto* entry = current ? current->find(at) : nullptr;
    return {entry != nullptr, entry ? entry->hardware : nullptr};
}

trelm::detail::Place trelm::detail::port_place(const dorfc_pci_info& at) {
    const auto* entry = current ? current->find(at) : nullptr;
    return {entry != nullptr, entry ? entry->port : nullptr};
}
