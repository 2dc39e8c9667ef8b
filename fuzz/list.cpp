// list.cpp - sequences of list operations on two lists, against a plain model.
#include <array>
#include <optional>
#include <vector>

#include "list_model.h"

namespace {

using trelm::fuzz::check;
using trelm::fuzz::Input;
using trelm::fuzz::Model;

constexpr size_t kMostElements = 600;  // more than twice what the sort takes in one piece

// Elements of the plain lists. Equal keys are told apart by address.
struct Element {
    uint8_t key;
};

int key_of(const void* element) { return static_cast<const Element*>(element)->key; }
int compare(void* a, void* b) { return key_of(a) - key_of(b); }
int equals(void* target, void* element) { return key_of(target) == key_of(element); }
bool less(const void* a, const void* b) { return key_of(a) < key_of(b); }
int goes_before(void* data, void* element) { return key_of(data) < key_of(element); }
int is_even(void* element) { return key_of(element) % 2 == 0; }
void raise(void* element) { ++static_cast<Element*>(element)->key; }

trelm_dl_node* node_at(trelm_dlist* list, size_t position) {
    trelm_dl_node* node = list->head->next;
    while (position--) node = node->next;
    return node;
}

class Lists {
  public:
    explicit Lists(Input& input) : input_(input) {
        for (auto& list : lists_) list = trelm_dlist_new(sizeof(Element));
    }
    ~Lists() {
        for (auto* list : lists_) trelm_dlist_destroy(list);
    }
    Lists(const Lists&) = delete;
    Lists& operator=(const Lists&) = delete;

    void step() {
        static constexpr void (Lists::*kSteps[])() = {
            &Lists::insert,        &Lists::insert, &Lists::insert_many,
            &Lists::insert_sorted, &Lists::ends,   &Lists::take_ends,
            &Lists::move_cursor,   &Lists::remove, &Lists::remove_at_cursor,
            &Lists::move,          &Lists::find,   &Lists::change,
            &Lists::swap,          &Lists::sort,   &Lists::filter,
            &Lists::merge};
        chosen_ = input_.below(2);
        (this->*kSteps[input_.below(std::size(kSteps))])();
        for (size_t i = 0; i < lists_.size(); ++i) check(lists_[i], models_[i]);
    }

  private:
    trelm_dlist* list() { return lists_[chosen_]; }
    Model& model() { return models_[chosen_]; }
    Element* create() {
        auto* element = static_cast<Element*>(malloc(sizeof(Element)));
        element->key = input_.take<uint8_t>();
        return element;
    }
    // The position of some element.
    std::optional<size_t> somewhere() {
        const size_t count = model().items.size();
        return count ? std::optional(input_.take<uint16_t>() % count) : std::nullopt;
    }
    void dispose(void* removed, void* expected) {
        REQUIRE(removed == expected);
        free(removed);
    }

    void insert() {
        const int forward = static_cast<int>(input_.below(2));
        Element* element = create();
        REQUIRE(trelm_dlist_insert(list(), element, forward) == element);
        model().insert(element, forward != 0);
    }
    void insert_many() {
        for (uint32_t count = input_.take<uint8_t>(); count > 0 && model().items.size() < kMostElements;
             --count)
            insert();
    }
    void insert_sorted() {
        Element* element = create();
        const size_t at = model().position([&](void* other) { return goes_before(element, other) != 0; });
        const bool unshift = model().items.empty() && input_.below(2);
        auto* const put = unshift ? trelm_dlist_unshift_sorted : trelm_dlist_insert_sorted;
        REQUIRE(put(list(), element, goes_before) == element);
        model().put(at, element);
    }
    void ends() {
        const bool front = input_.below(2) != 0;
        Element* element = create();
        REQUIRE((front ? trelm_dlist_unshift : trelm_dlist_push)(list(), element) == element);
        model().put(front ? 0 : model().items.size(), element);
    }
    void take_ends() {
        const bool front = input_.below(2) != 0;
        void* const taken = (front ? trelm_dlist_shift : trelm_dlist_pop)(list());
        if (model().items.empty()) return REQUIRE(taken == nullptr);
        dispose(taken, model().remove(front ? 0 : model().items.size() - 1, front));
    }
    void move_cursor() {
        if (input_.below(8) == 0) {
            trelm_dlist_start(list());
            return model().to_sentinel();
        }
        const uint32_t forward = input_.below(2);
        void* const there = _trelm_dlist_mark_move(list(), static_cast<int>(forward));
        model().move(forward != 0);
        REQUIRE(there == (model().at_sentinel() ? nullptr : model().items[model().cursor]));
        REQUIRE(trelm_dlist_mark(list()) == there);
    }
    void remove() {
        const auto at = somewhere();
        const uint32_t forward = input_.below(2);
        if (!at) return REQUIRE(_trelm_dlist_remove(list(), list()->head, 1) == nullptr);
        void* const removed = _trelm_dlist_remove(list(), node_at(list(), *at), static_cast<int>(forward));
        dispose(removed, model().remove(*at, forward != 0));
    }
    void remove_at_cursor() {
        const uint32_t forward = input_.below(2);
        trelm_dlist_delete(list(), static_cast<int>(forward));
        if (!model().at_sentinel()) model().remove(model().cursor, forward != 0);
    }
    void move() {
        const auto at = somewhere();
        const uint32_t forward = input_.below(2);
        if (!at) return;
        trelm_dlist_move(list(), lists_[1 - chosen_], node_at(list(), *at), static_cast<int>(forward));
        models_[1 - chosen_].insert(model().remove(*at, forward != 0), forward != 0);
    }
    void find() {
        Element target{input_.take<uint8_t>()};
        const size_t at = model().position([&](void* other) { return equals(&target, other) != 0; });
        void* const expected = at < model().items.size() ? model().items[at] : nullptr;
        REQUIRE(trelm_dlist_find_custom(list(), &target, equals) == expected);
    }
    void change() {
        std::vector<int> keys;
        for (const void* item : model().items) keys.push_back((key_of(item) + 1) % 256);
        trelm_dlist_transform(list(), raise);
        for (size_t i = 0; i < keys.size(); ++i) REQUIRE(key_of(model().items[i]) == keys[i]);
    }
    void swap() {
        const auto a = somewhere();
        const auto b = somewhere();
        if (!a || !b) return;
        _trelm_dlist_swap(list(), node_at(list(), *a), node_at(list(), *b));
        std::swap(model().items[*a], model().items[*b]);
    }
    void sort() {
        trelm_dlist_sort_custom(list(), compare);
        model().sort(less);
    }
    void filter() {
        std::vector<void*> kept;
        for (size_t at = 0; at < model().items.size();) {
            if (is_even(model().items[at])) {
                ++at;
            } else {
                model().cursor = at;
                model().remove(at, true);
            }
        }
        trelm_dlist_filter_sort(list(), is_even, compare);
        model().sort(less);
    }
    // Runs of one length are merged in pairs.
    void merge() {
        const size_t run = input_.below(8);
        Model& to = models_[1 - chosen_];
        std::vector<void*>& from = model().items;
        const size_t runs = run ? (from.size() + run - 1) / run : 0;
        const int steps =
            _trelm_dlist_merge(list(), lists_[1 - chosen_], static_cast<unsigned>(run), compare);
        REQUIRE(steps == static_cast<int>(runs));
        if (runs == 0) return;
        for (size_t at = 0; at < from.size(); at += 2 * run) {
            const auto a = from.begin() + static_cast<ptrdiff_t>(at);
            const auto b = a + static_cast<ptrdiff_t>(std::min(run, from.size() - at));
            const auto end = a + static_cast<ptrdiff_t>(std::min(2 * run, from.size() - at));
            std::vector<void*> merged(static_cast<size_t>(end - a));
            std::merge(a, b, b, end, merged.begin(), less);
            for (void* item : merged) to.insert(item, true);
        }
        from.clear();
        model().to_sentinel();
    }

    Input& input_;
    size_t chosen_ = 0;
    std::array<trelm_dlist*, 2> lists_{};
    std::array<Model, 2> models_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Lists lists(input);
    for (int steps = 0; steps < 200 && !input.empty(); ++steps) lists.step();
    return 0;
}
