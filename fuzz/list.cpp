// list.cpp - random sequences of list operations on two lists, compared with a plain model.
#include "list_model.h"

namespace {

// Elements are bytes. Equal ones are distinguished by address.
int compare(void* a, void* b) { return *static_cast<uint8_t*>(a) - *static_cast<uint8_t*>(b); }
int is_less(void* a, void* b) { return compare(a, b) < 0; }
int is_equal(void* a, void* b) { return compare(a, b) == 0; }
int is_odd(void* element) { return *static_cast<uint8_t*>(element) % 2; }

// The list of a step, the other list, and the choices of the step.
struct Step {
    Model model{.data_size = 3}, other_model{.data_size = 5};
    trelm_dlist* list = trelm_dlist_new(model.data_size);
    trelm_dlist* other = trelm_dlist_new(other_model.data_size);
    bool forward = false;
    uint16_t number = 0;

    size_t size() const { return model.items.size(); }
    size_t somewhere() const { return size() ? number % size() : 0; }
    trelm_dl_node* node_there() const {
        trelm_dl_node* node = list->head;
        for (size_t i = 0; size() && i <= somewhere(); ++i) node = node->next;
        return node;
    }
    void* element() const { return memset(malloc(1), number, 1); }
    void takes(void* taken, size_t position, bool forwards) {
        REQUIRE(taken == (size() ? model.remove(position, forwards) : nullptr));
        free(taken);
    }
};

constexpr void (*kOperations[])(Step&) = {
    [](Step& s) {  // several, because most operations remove some
        for (int i = 0; i < 8; ++i, s.number += 7)
            s.model.insert(trelm_dlist_insert(s.list, s.element(), s.forward), s.forward);
    },
    [](Step& s) { s.model.put(s.size(), trelm_dlist_push(s.list, s.element())); },
    [](Step& s) { s.model.put(0, trelm_dlist_unshift(s.list, s.element())); },
    [](Step& s) {
        const auto insert = s.forward ? trelm_dlist_insert_sorted : trelm_dlist_unshift_sorted;
        void* const added = s.element();
        s.model.find([&](void* other) { return is_less(added, other) != 0; });
        s.model.put(s.model.cursor, insert(s.list, added, is_less));
    },
    [](Step& s) { s.takes(trelm_dlist_pop(s.list), s.size() - 1, false); },
    [](Step& s) { s.takes(trelm_dlist_shift(s.list), 0, true); },
    [](Step& s) {
        s.takes(_trelm_dlist_remove(s.list, s.node_there(), s.forward), s.somewhere(), s.forward);
    },
    [](Step& s) {  // deletes a node whose element the list may release
        if (s.model.at_cursor()) s.model.remove(s.model.cursor, s.forward);
        trelm_dlist_delete(s.list, s.forward);
    },
    [](Step& s) {
        s.model.cursor = s.size();
        (s.forward ? trelm_dlist_start : trelm_dlist_end)(s.list);
    },
    [](Step& s) {
        const size_t cursor = s.model.cursor;
        void* const wanted = s.element();
        void* const found = s.model.find([&](void* item) { return is_equal(wanted, item) != 0; });
        s.model.cursor = cursor;
        REQUIRE(trelm_dlist_find_custom(s.list, wanted, is_equal) == found);
        free(wanted);
    },
    [](Step& s) {
        if (!s.size()) return;
        _trelm_dlist_swap(s.list, s.list->head->next, s.node_there());
        std::swap(s.model.items[0], s.model.items[s.somewhere()]);
    },
    [](Step& s) {
        s.model.move(s.forward);
        REQUIRE(_trelm_dlist_mark_move(s.list, s.forward) == s.model.at_cursor());
    },
    [](Step& s) {
        trelm_dlist_move(s.list, s.other, s.node_there(), s.forward);
        if (!s.size()) return;
        s.other_model.insert(s.model.remove(s.somewhere(), s.forward), s.forward);
        REQUIRE(s.size() || !s.list->head->next);  // without nodes there is no ring
    },
    [](Step& s) {
        trelm_dlist_sort_custom(s.list, compare);
        s.model.sort(is_less);
    },
    [](Step& s) {
        const auto filter = s.forward ? is_odd : nullptr;
        for (size_t i = 0; filter && i < s.size();) {
            if (filter(s.model.items[i])) {
                ++i;
            } else {
                s.model.cursor = i;
                s.model.remove(i, true);
            }
        }
        trelm_dlist_filter_sort(s.list, filter, compare);
        s.model.sort(is_less);
    },
    [](Step& s) {
        const size_t run = 1 + s.number % 9;
        const int steps = _trelm_dlist_merge(s.list, s.other, static_cast<unsigned>(run), compare);
        REQUIRE(std::min(steps, 2) == (s.size() > run) + (s.size() > 0));
        for (size_t at = 0; at < s.size(); at += 2 * run) s.model.merge(at, run, is_less);
        for (void* item : s.model.items) s.other_model.insert(item, true);
        s.model.items.clear(), s.model.cursor = 0;
    },
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Step step;
    for (trelm::fuzz::Input input(data, size); !input.empty();) {
        std::swap(step.list, step.other);
        std::swap(step.model, step.other_model);
        const auto operation = kOperations[input.below(std::size(kOperations))];
        step.number = input.take<uint16_t>();
        step.forward = step.number % 3 != 0;
        operation(step);
        step.model.check(step.list);
        step.other_model.check(step.other);
    }
    trelm_dlist_destroy(step.list);
    trelm_dlist_destroy(step.other);
    return 0;
}
