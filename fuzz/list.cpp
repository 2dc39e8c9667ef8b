// list.cpp - sequences of list operations on two lists, against a plain model.
#include "list_model.h"

namespace {

// Elements are bytes; equal ones are told apart by address.
int compare(void* a, void* b) { return *static_cast<uint8_t*>(a) - *static_cast<uint8_t*>(b); }
int is_less(void* a, void* b) { return compare(a, b) < 0; }

constexpr size_t kOftenChecked = 64;  // longer lists are looked at now and then, as that takes time

// The list of a step, the other one, and what the step chooses by.
struct Step {
    trelm_dlist* list = trelm_dlist_new(1);
    trelm_dlist* other = trelm_dlist_new(1);
    Model model, other_model;
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
    [](Step& s) {  // one, and now and then many; in all several times what the sort takes in one piece
        for (int i = s.number < 0xF000 ? 1 : 400; i > 0 && s.size() < 1200; --i, s.number += 7)
            s.model.insert(trelm_dlist_insert(s.list, s.element(), s.forward), s.forward);
    },
    [](Step& s) { s.model.put(s.size(), trelm_dlist_push(s.list, s.element())); },
    [](Step& s) { s.model.put(0, trelm_dlist_unshift(s.list, s.element())); },
    [](Step& s) {
        void* const added = s.element();
        s.model.find([&](void* other) { return is_less(added, other) != 0; });
        s.model.put(s.model.cursor, trelm_dlist_insert_sorted(s.list, added, is_less));
    },
    [](Step& s) { s.takes(trelm_dlist_pop(s.list), s.size() - 1, false); },
    [](Step& s) { s.takes(trelm_dlist_shift(s.list), 0, true); },
    [](Step& s) {
        s.takes(_trelm_dlist_remove(s.list, s.node_there(), s.forward), s.somewhere(), s.forward);
    },
    [](Step& s) {
        s.model.move(s.forward);
        REQUIRE(_trelm_dlist_mark_move(s.list, s.forward) == s.model.at_cursor());
    },
    [](Step& s) {
        trelm_dlist_move(s.list, s.other, s.node_there(), s.forward);
        if (!s.size()) return;
        s.other_model.insert(s.model.remove(s.somewhere(), s.forward), s.forward);
        REQUIRE(s.size() || !s.list->head->next);  // the last one takes the ring along
    },
    [](Step& s) {
        trelm_dlist_sort_custom(s.list, compare);
        std::stable_sort(s.model.items.begin(), s.model.items.end(), is_less);
        if (s.size() > 1) s.model.cursor = s.size() - 1;
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
        if (step.size() > kOftenChecked && step.number % 16 != 0 && !input.empty()) continue;
        step.model.check(step.list);
        step.other_model.check(step.other);
    }
    trelm_dlist_destroy(step.list);
    trelm_dlist_destroy(step.other);
    return 0;
}
