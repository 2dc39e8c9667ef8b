// list_model.h - what a list is to be: a vector and the position of the cursor.
#pragma once

#include <vector>

#include "target.h"
#include "trelm_dlist.h"

namespace trelm::fuzz {

// What a list is to hold. The sentinel is the position behind the last element, and before the first.
struct Model {
    std::vector<void*> items;
    size_t cursor = 0;
    bool has_cursor = false;  // a new list has none

    bool at_sentinel() const { return cursor == items.size(); }
    void to_sentinel() {
        cursor = items.size();
        has_cursor = true;
    }
    void move(bool forward) {
        if (!has_cursor) return;
        cursor = (cursor + (forward ? 1 : items.size())) % (items.size() + 1);
    }
    void put(size_t at, void* data) {
        items.insert(items.begin() + static_cast<ptrdiff_t>(at), data);
        cursor = at;
        has_cursor = true;
    }
    void insert(void* data, bool forward) {
        if (!has_cursor) to_sentinel();
        put(!forward ? cursor : at_sentinel() ? 0 : cursor + 1, data);
    }
    void* remove(size_t at, bool forward) {
        void* data = items[at];
        const bool was_sentinel = at_sentinel();
        if (cursor == at) move(forward);
        const bool to_end = at_sentinel() || was_sentinel;
        items.erase(items.begin() + static_cast<ptrdiff_t>(at));
        cursor = to_end ? items.size() : cursor - (cursor > at);
        return data;
    }
    size_t position(auto matches) const {
        return static_cast<size_t>(std::find_if(items.begin(), items.end(), matches) - items.begin());
    }
    void sort(auto less) {
        if (items.size() < 2) return;
        std::stable_sort(items.begin(), items.end(), less);
        cursor = items.size() - 1;
    }
};

inline void check(const trelm_dlist* list, const Model& model) {
    REQUIRE(list->head == &list->headnode && list->headnode.data == nullptr);
    REQUIRE(list->count == model.items.size());
    const trelm_dl_node* node = list->head;
    for (size_t i = 0; i < model.items.size(); ++i) {
        REQUIRE(node->next->prev == node);
        node = node->next;
        REQUIRE(node->data == model.items[i]);
        REQUIRE((list->marker == node) == (model.has_cursor && model.cursor == i));
    }
    REQUIRE(model.items.empty() || (node->next == list->head && list->head->prev == node));
    REQUIRE((list->marker == list->head) == (model.has_cursor && model.at_sentinel()));
    REQUIRE((list->marker == nullptr) == !model.has_cursor);
}

}  // namespace trelm::fuzz
