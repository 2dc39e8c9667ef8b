// location_index.h - finds records by PCI location while a discovery runs. Each virtual port looks for its
// hardware and its physical port, and walking the lists for each makes a large host's load quadratic. The
// index lives only as long as the discovery, in which nobody else touches a record; at any other time, and
// when memory for it runs out, look-ups walk.
#pragma once

#include "trelm_core.h"

namespace trelm::detail {

// What the index knows of a location. Where it is `known`, a walk would end on the node, or on the sentinel
// where there is none.
struct Place {
    bool known;
    trelm_dl_node* node;
};

class LocationIndex {
  public:
    LocationIndex();
    ~LocationIndex();
    LocationIndex(const LocationIndex&) = delete;
    LocationIndex& operator=(const LocationIndex&) = delete;

    // The only records of a location. Of several the first in list order counts, which a walk finds out.
    struct Entry {
        uint64_t location;
        bool taken;
        bool several;
        trelm_dl_node* hardware;
        trelm_dl_node* port;
    };

    // The entry of the location, a free one where it has none; null where only a walk can tell.
    const Entry* find(const dorfc_pci_info& at);
    void add_newest();

  private:
    bool build();
    bool reserve();
    Entry& slot(uint64_t location) const;
    void note(uint64_t location, trelm_dl_node* Entry::*kind, trelm_dl_node* node);
    void give_up();

    Entry* entries_ = nullptr;
    size_t capacity_ = 0;  // a power of two
    size_t count_ = 0;
    bool usable_ = true;
};

// Told of each physical port that has just been added, while both lists' cursors rest on its records.
void index_newest_port();

// Not known unless a discovery is under way.
Place hardware_place(const dorfc_pci_info& at);
Place port_place(const dorfc_pci_info& at);

}  // namespace trelm::detail
