// list_model.h - a model of a list: a vector and the position of the cursor, which equals the size at the
// sentinel.
#pragma once

#include <vector>

#include "target.h"
#include "trelm_dlist.h"

struct Model {
    std::vector<void*> items{};
    size_t cursor = 0;
    size_t data_size = 0;  // 0: not checked

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
    // Moves the cursor to the first match, or to the sentinel.
    void* find(auto matches) {
        cursor = static_cast<size_t>(std::find_if(items.begin(), items.end(), matches) - items.begin());
        return at_cursor();
    }
    void sort(auto is_less) {
        if (items.size() < 2) return;
        std::stable_sort(items.begin(), items.end(), is_less);
        cursor = items.size() - 1;
    }
    // Merges two neighbouring runs. The last may be shorter. They need not be sorted.
    void merge(size_t at, size_t run, auto is_less) {
        const auto place = [&](size_t i) {
            return items.begin() + static_cast<ptrdiff_t>(std::min(i, items.size()));
        };
        std::vector<void*> merged;
        for (auto a = place(at), b = place(at + run); a != place(at + run) || b != place(at + 2 * run);) {
            const bool takes_b = a == place(at + run) || (b != place(at + 2 * run) && is_less(*b, *a));
            merged.push_back(takes_b ? *b++ : *a++);
        }
        std::copy(merged.begin(), merged.end(), place(at));
    }
    void check(trelm_dlist* list) const {
        REQUIRE(data_size == 0 || (list->data_size == data_size && list->del_func == free));
        REQUIRE(list->head == &list->headnode && !list->headnode.data && list->count == items.size());
        const trelm_dl_node* node = list->head;
        for (size_t i = 0; i < items.size(); ++i, node = node->next)
            REQUIRE(node->next->prev == node && node->next->data == items[i]);
        REQUIRE(items.empty() || (node->next == list->head && list->head->prev == node));
        REQUIRE(trelm_dlist_mark(list) == at_cursor());
    }
};
