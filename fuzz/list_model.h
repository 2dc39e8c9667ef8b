// list_model.h - what a list is to be: a vector and the position of the cursor, its size for the sentinel.
#pragma once

#include <vector>

#include "target.h"
#include "trelm_dlist.h"

struct Model {
    std::vector<void*> items;
    size_t cursor = 0;

    void* at_cursor() const { return cursor < items.size() ? items[cursor] : nullptr; }
    void move(bool forward) { cursor = (cursor + (forward ? 1 : items.size())) % (items.size() + 1); }
    void put(size_t at, void* data) {
        items.insert(items.begin() + static_cast<ptrdiff_t>(at), data);
        cursor = at;
    }
    void insert(void* data, bool forward) { put(forward ? (cursor + 1) % (items.size() + 1) : cursor, data); }
    void* remove(size_t at, bool forward) {
        void* const data = items[at];
        if (cursor == at) move(forward);
        if (cursor > at) --cursor;
        items.erase(items.begin() + static_cast<ptrdiff_t>(at));
        return data;
    }
    // The cursor goes to the first that matches, or to the sentinel.
    void* find(auto matches) {
        cursor = static_cast<size_t>(std::find_if(items.begin(), items.end(), matches) - items.begin());
        return at_cursor();
    }
    void check(trelm_dlist* list) const {
        REQUIRE(list->head == &list->headnode && !list->headnode.data && list->count == items.size());
        const trelm_dl_node* node = list->head;
        for (size_t i = 0; i < items.size(); ++i, node = node->next)
            REQUIRE(node->next->prev == node && node->next->data == items[i]);
        REQUIRE(items.empty() || (node->next == list->head && list->head->prev == node));
        REQUIRE(trelm_dlist_mark(list) == at_cursor());
    }
};
