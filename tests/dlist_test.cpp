// dlist_test.cpp - the list container: what each operation does to ring, count and cursor.
#include "trelm_dlist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "support/failing_allocation.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Elements that compare equal are told apart by their address alone.
struct Item {
    int key;
};
using Items = std::vector<Item*>;

Items released;
void release(void* element) { released.push_back(static_cast<Item*>(element)); }

int key_of(void* element) { return static_cast<Item*>(element)->key; }
int by_key(void* a, void* b) { return key_of(a) - key_of(b); }
int same_key(void* target, void* element) { return key_of(target) == key_of(element); }
int goes_before(void* added, void* element) { return key_of(added) < key_of(element); }
int is_odd(void* element) { return key_of(element) % 2; }

// A list that must be whole whenever a test looks at it.
class List {
  public:
    List() : list_(trelm_dlist_new_with_delete(sizeof(Item), release)) { released.clear(); }
    explicit List(std::initializer_list<int> keys) : List() {
        for (int key : keys) trelm_dlist_push(list_, item(key));
    }
    ~List() {
        if (list_) trelm_dlist_destroy(list_);
    }
    List(const List&) = delete;
    List& operator=(const List&) = delete;

    operator trelm_dlist*() const { return list_; }
    trelm_dlist* operator->() const { return list_; }

    Item* item(int key) { return &items_.emplace_back(Item{key}); }
    trelm_dl_node* node(size_t index) const {
        trelm_dl_node* node = list_->headnode.next;
        while (index-- > 0) node = node->next;
        return node;
    }

    // The elements from first to last, after a look at everything that must hold of a list at any time.
    Items elements() const {
        Items found;
        const trelm_dl_node* head = &list_->headnode;
        EXPECT_EQ(list_->head, head);
        EXPECT_EQ(head->data, nullptr);
        EXPECT_EQ(head->next == nullptr, head->prev == nullptr);
        bool cursor_is_inside = list_->marker == nullptr || list_->marker == head;
        for (const trelm_dl_node* node = head->next; node && node != head; node = node->next) {
            EXPECT_EQ(node->prev->next, node);
            EXPECT_NE(node->data, nullptr);
            cursor_is_inside |= list_->marker == node;
            found.push_back(static_cast<Item*>(node->data));
            if (found.size() > list_->count) break;
        }
        EXPECT_TRUE(!head->next || (head->next->prev == head && head->prev->next == head));
        EXPECT_EQ(found.size(), list_->count);
        EXPECT_TRUE(cursor_is_inside);
        return found;
    }
    std::vector<int> keys() const {
        std::vector<int> keys;
        for (const Item* item : elements()) keys.push_back(item->key);
        return keys;
    }
    // The key under the cursor, 0 for the sentinel.
    int cursor() const {
        const void* element = trelm_dlist_mark(list_);
        return element ? static_cast<const Item*>(element)->key : 0;
    }
    void set_cursor(size_t index) const { list_->marker = node(index); }

    Items destroy() {
        trelm_dlist_destroy(list_);
        list_ = nullptr;
        return std::exchange(released, {});
    }

  private:
    trelm_dlist* list_;
    std::deque<Item> items_;
};

std::vector<int> keys_of(const Items& items) {
    std::vector<int> keys;
    for (const Item* item : items) keys.push_back(item->key);
    return keys;
}

TEST(NewList, IsEmptyWithoutCursorAndEveryOperationOnItIsSafe) {
    trelm_dlist* plain = trelm_dlist_new(24);
    EXPECT_EQ(plain->data_size, 24U);
    EXPECT_EQ(plain->del_func, &free);
    trelm_dlist_push(plain, malloc(24));  // a leak where the default release is none
    trelm_dlist_destroy(plain);
    trelm_dlist_destroy(nullptr);

    List list;
    EXPECT_EQ(list->marker, nullptr);
    EXPECT_EQ(list->headnode.next, nullptr);
    EXPECT_EQ(list->del_func, &release);
    EXPECT_EQ(list->data_size, sizeof(Item));
    for (const bool started : {false, true}) {
        SCOPED_TRACE(started);
        if (started) trelm_dlist_start(list);
        const trelm_dl_node* const cursor = list->marker;
        EXPECT_EQ(cursor, started ? list->head : nullptr);
        EXPECT_EQ(trelm_dlist_mark(list), nullptr);
        EXPECT_EQ(_trelm_dlist_mark_move(list, 1), nullptr);
        EXPECT_EQ(_trelm_dlist_mark_move(list, 0), nullptr);
        EXPECT_EQ(trelm_dlist_pop(list), nullptr);
        EXPECT_EQ(trelm_dlist_shift(list), nullptr);
        EXPECT_EQ(trelm_dlist_find_custom(list, list.item(1), same_key), nullptr);
        trelm_dlist_transform(list, [](void*) { ADD_FAILURE(); });
        trelm_dlist_delete(list, 1);
        trelm_dlist_sort_custom(list, by_key);
        trelm_dlist_filter_sort(list, is_odd, by_key);
        EXPECT_EQ(list->marker, cursor);
        EXPECT_THAT(list.keys(), IsEmpty());
    }
    EXPECT_THAT(list.destroy(), IsEmpty());
}

TEST(Insertion, RefusesNothingAndNothingness) {
    List list{1, 2};
    Item item{3};
    trelm_dl_node node{nullptr, nullptr, &item};
    EXPECT_EQ(trelm_dlist_insert(nullptr, &item, 1), nullptr);
    EXPECT_EQ(trelm_dlist_insert(list, nullptr, 1), nullptr);
    EXPECT_EQ(trelm_dlist_push(list, nullptr), nullptr);
    EXPECT_EQ(trelm_dlist_unshift(list, nullptr), nullptr);
    EXPECT_EQ(_trelm_dlist_insert_dlnode(nullptr, &node, 1), nullptr);
    EXPECT_EQ(_trelm_dlist_insert_dlnode(list, nullptr, 1), nullptr);
    EXPECT_THAT(list.keys(), ElementsAre(1, 2));
}

TEST(Insertion, GoesNextToTheCursorAndTakesTheCursorAlong) {
    List list;
    for (int key : {1, 2, 3}) {
        Item* const item = list.item(key);
        EXPECT_EQ(trelm_dlist_insert(list, item, 1), item);
        EXPECT_EQ(list.cursor(), key);
    }
    EXPECT_THAT(list.keys(), ElementsAre(1, 2, 3));
    trelm_dlist_start(list);
    trelm_dlist_insert(list, list.item(4), 1);
    EXPECT_THAT(list.keys(), ElementsAre(4, 1, 2, 3));
    trelm_dlist_insert(list, list.item(5), 0);
    EXPECT_THAT(list.keys(), ElementsAre(5, 4, 1, 2, 3));
    trelm_dlist_end(list);
    trelm_dlist_insert(list, list.item(6), 0);
    EXPECT_THAT(list.keys(), ElementsAre(5, 4, 1, 2, 3, 6));
    EXPECT_EQ(list.cursor(), 6);

    // Whatever the cursor, these go to an end.
    list.set_cursor(2);
    trelm_dlist_push(list, list.item(7));
    EXPECT_EQ(list.cursor(), 7);
    list.set_cursor(2);
    trelm_dlist_unshift(list, list.item(8));
    EXPECT_EQ(list.cursor(), 8);
    EXPECT_THAT(list.keys(), ElementsAre(8, 5, 4, 1, 2, 3, 6, 7));
}

TEST(Insertion, IntoAnEmptyListOfAnyFormMakesTheOnlyElement) {
    const std::vector<std::function<void(trelm_dlist*, Item*)>> insertions = {
        [](trelm_dlist* list, Item* item) { trelm_dlist_insert(list, item, 1); },
        [](trelm_dlist* list, Item* item) { trelm_dlist_insert(list, item, 0); },
        [](trelm_dlist* list, Item* item) { trelm_dlist_push(list, item); },
        [](trelm_dlist* list, Item* item) { trelm_dlist_unshift(list, item); },
        [](trelm_dlist* list, Item* item) { trelm_dlist_insert_sorted(list, item, goes_before); },
        [](trelm_dlist* list, Item* item) { trelm_dlist_unshift_sorted(list, item, goes_before); },
    };
    const std::vector<std::function<void(List&)>> ways_to_be_empty = {
        [](List&) {},
        [](List& list) { trelm_dlist_start(list); },
        [](List& list) {  // linked to itself
            trelm_dlist_push(list, list.item(9));
            trelm_dlist_delete(list, 1);
            EXPECT_EQ(list->headnode.next, list->head);
            EXPECT_EQ(list->headnode.prev, list->head);
            EXPECT_EQ(list->marker, list->head);
        },
        [](List& list) {  // without links again
            List other;
            trelm_dlist_push(list, list.item(9));
            trelm_dlist_move(list, other, list.node(0), 1);
            EXPECT_EQ(list->headnode.next, nullptr);
            EXPECT_EQ(list->headnode.prev, nullptr);
        },
    };
    for (size_t way = 0; way < ways_to_be_empty.size(); ++way) {
        for (size_t i = 0; i < insertions.size(); ++i) {
            SCOPED_TRACE(testing::Message() << "way " << way << ", insertion " << i);
            List list;
            ways_to_be_empty[way](list);
            insertions[i](list, list.item(1));
            EXPECT_THAT(list.keys(), ElementsAre(1));
            EXPECT_EQ(list.cursor(), 1);
        }
    }
}

TEST(SortedInsertion, GoesBeforeTheFirstElementThatTheSorterSays) {
    struct {
        int added;
        std::vector<int> expected;
    } const cases[] = {
        {4, {1, 3, 4, 5}},
        {9, {1, 3, 5, 9}},
        {0, {0, 1, 3, 5}},
        {3, {1, 3, 3, 5}},
    };
    for (const auto& [added, expected] : cases) {
        for (auto* insert : {trelm_dlist_insert_sorted, trelm_dlist_unshift_sorted}) {
            List list{1, 3, 5};
            Item* const item = list.item(added);
            EXPECT_EQ(insert(list, item, goes_before), item);
            EXPECT_EQ(list.keys(), expected);
            EXPECT_EQ(trelm_dlist_mark(list), item);
        }
    }
    List list{3};
    Item* const equal = list.item(3);
    trelm_dlist_insert_sorted(list, equal, goes_before);
    EXPECT_EQ(list.elements().back(), equal);  // behind its equals
}

TEST(Cursor, WalksTheRingBothWaysThroughTheSentinel) {
    List list{1, 2};
    trelm_dlist_start(list);
    for (int expected : {1, 2, 0, 1}) {
        const void* const element = _trelm_dlist_mark_move(list, 1);
        EXPECT_EQ(element, trelm_dlist_mark(list));
        EXPECT_EQ(list.cursor(), expected);
    }
    for (int expected : {0, 2, 1, 0}) {
        const void* const element = _trelm_dlist_mark_move(list, 0);
        EXPECT_EQ(element, trelm_dlist_mark(list));
        EXPECT_EQ(list.cursor(), expected);
    }
}

TEST(Removal, HandsTheElementBackAndMovesOnlyACursorOnIt) {
    struct {
        size_t removed, cursor;
        int direction, expected_cursor;
    } const cases[] = {
        {1, 1, 1, 3}, {1, 1, 0, 1}, {0, 0, 0, 0}, {0, 0, 1, 2},
        {2, 2, 1, 0}, {2, 2, 0, 2}, {0, 2, 1, 3}, {2, 0, 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.removed << c.cursor << c.direction);
        const std::vector<int> left = c.removed == 0   ? std::vector{2, 3}
                                      : c.removed == 1 ? std::vector{1, 3}
                                                       : std::vector{1, 2};
        List list{1, 2, 3};
        list.set_cursor(c.cursor);
        void* const element = list.node(c.removed)->data;
        EXPECT_EQ(_trelm_dlist_remove(list, list.node(c.removed), c.direction), element);
        EXPECT_EQ(list.keys(), left);
        EXPECT_EQ(list.cursor(), c.expected_cursor);
        EXPECT_THAT(released, IsEmpty());
        if (c.removed != c.cursor) continue;

        List other{1, 2, 3};  // deleting takes what is under the cursor
        other.set_cursor(c.cursor);
        trelm_dlist_delete(other, c.direction);
        EXPECT_EQ(other.keys(), left);
        EXPECT_EQ(other.cursor(), c.expected_cursor);
        EXPECT_THAT(keys_of(released), ElementsAre(static_cast<int>(c.removed) + 1));
    }
    List list{1};
    EXPECT_EQ(_trelm_dlist_remove(list, nullptr, 1), nullptr);
    trelm_dlist_start(list);
    trelm_dlist_delete(list, 1);
    EXPECT_THAT(list.keys(), ElementsAre(1));
}

TEST(Move, TakesTheNodeItselfButNeverTheSentinel) {
    List from{1, 2};
    List to{7, 8};
    to.set_cursor(0);
    trelm_dl_node* const node = from.node(1);
    trelm_dlist_move(from, to, node, 1);
    EXPECT_EQ(to.node(1), node);
    trelm_dlist_move(from, to, nullptr, 1);
    trelm_dlist_move(from, to, from->head, 1);
    EXPECT_THAT(from.keys(), ElementsAre(1));
    EXPECT_THAT(to.keys(), ElementsAre(7, 2, 8));
}

TEST(Search, VisitsElementsInOrderAndLeavesTheCursor) {
    List list{3, 1, 2, 1};
    list.set_cursor(2);
    Item sought{1};
    EXPECT_EQ(trelm_dlist_find_custom(list, &sought, same_key), list.node(1)->data);
    sought.key = 4;
    EXPECT_EQ(trelm_dlist_find_custom(list, &sought, same_key), nullptr);
    static std::vector<int> visited;
    trelm_dlist_transform(list, [](void* element) { visited.push_back(key_of(element)); });
    EXPECT_THAT(visited, ElementsAre(3, 1, 2, 1));
    _trelm_dlist_swap(list, list.node(0), list.node(3));
    EXPECT_EQ(list->marker, list.node(2));
    EXPECT_EQ(list.keys(), (std::vector<int>{1, 1, 2, 3}));
}

TEST(Destruction, ReleasesEveryElementFromFirstToLast) {
    List list{4, 2, 3};
    list.set_cursor(1);
    EXPECT_THAT(keys_of(list.destroy()), ElementsAre(4, 2, 3));
}

TEST(MergePass, MergesNeighbouringRunsBehindTheOtherListsCursor) {
    struct {
        std::initializer_list<int> source;
        unsigned run;
        std::vector<int> expected;
        bool merges;
    } const cases[] = {
        {{2, 1}, 1, {1, 2}, true},
        {{4, 3, 2, 1, 0}, 1, {3, 4, 1, 2, 0}, true},
        {{3, 4, 1, 2, 0}, 2, {1, 2, 3, 4, 0}, true},
        {{3, 9, 1}, 2, {1, 3, 9}, true},
        {{2, 1}, 2, {2, 1}, false},
        {{2, 1, 3}, 8, {2, 1, 3}, false},
        {{5}, 1, {5}, false},
    };
    for (const auto& c : cases) {
        List source(c.source);
        List dest;
        const int steps = _trelm_dlist_merge(source, dest, c.run, by_key);
        EXPECT_TRUE(c.merges ? steps >= 2 : steps == 1) << steps;
        EXPECT_EQ(dest.keys(), c.expected);
        EXPECT_EQ(dest.cursor(), c.expected.back());
        EXPECT_THAT(source.keys(), IsEmpty());
        EXPECT_EQ(_trelm_dlist_merge(source, dest, c.run, by_key), 0);
    }
    List source{4, 3};
    List dest{1, 9};
    dest.set_cursor(0);
    _trelm_dlist_merge(source, dest, 1, by_key);
    EXPECT_THAT(dest.keys(), ElementsAre(1, 3, 4, 9));
}

TEST(Sort, IsStableAtEverySize) {
    std::mt19937 random(7);
    for (int size : {0,  1,   2,   3,   4,   5,    7,    8,    9,    15,   16,   17,   31,   33,   63,  64,
                     65, 127, 129, 255, 257, 1000, 1023, 1024, 1025, 2047, 2048, 2049, 3072, 3073, 5000}) {
        for (int keys : {1, 3, 1 << 20}) {
            SCOPED_TRACE(testing::Message() << size << " elements of " << keys << " keys");
            List list;
            for (int i = 0; i < size; ++i)
                trelm_dlist_push(list, list.item(static_cast<int>(random()) % keys));
            if (size > 1) list.set_cursor(static_cast<size_t>(size) / 2);
            Items expected = list.elements();
            std::stable_sort(expected.begin(), expected.end(),
                             [](const Item* a, const Item* b) { return a->key < b->key; });
            trelm_dlist_sort_custom(list, by_key);
            EXPECT_TRUE(list.elements() == expected);
            EXPECT_EQ(trelm_dlist_mark(list), size ? expected.back() : nullptr);
            EXPECT_THAT(released, IsEmpty());
            EXPECT_EQ(list->data_size, sizeof(Item));
            EXPECT_TRUE(list.destroy() == expected);
        }
    }
}

TEST(Sort, WithAFilterReleasesWhatTheFilterRejects) {
    List list{4, 3, 2, 1, 6};
    trelm_dlist_filter_sort(list, is_odd, by_key);
    EXPECT_THAT(list.keys(), ElementsAre(1, 3));
    EXPECT_THAT(keys_of(released), ElementsAre(4, 2, 6));
    List unfiltered{2, 1};
    trelm_dlist_filter_sort(unfiltered, nullptr, by_key);
    EXPECT_THAT(unfiltered.keys(), ElementsAre(1, 2));
    List all_go{2, 4};
    trelm_dlist_filter_sort(all_go, is_odd, by_key);
    EXPECT_THAT(all_go.keys(), IsEmpty());
    trelm_dlist_push(all_go, all_go.item(1));
    EXPECT_THAT(all_go.keys(), ElementsAre(1));
}

TEST(ExhaustedMemory, MakesNoListAndNoElementAndSortsNothing) {
    using trelm::test::FailingAllocation;
    List list{3, 1, 2};
    Item* const item = list.item(9);
    trelm_dlist* made = list;
    {
        FailingAllocation fail;
        made = trelm_dlist_new(8);
    }
    EXPECT_EQ(made, nullptr);
    for (auto* insert : {trelm_dlist_push, trelm_dlist_unshift}) {
        FailingAllocation fail;
        void* inserted = insert(list, item);
        EXPECT_EQ(inserted, nullptr);
    }
    {
        FailingAllocation fail;
        trelm_dlist_sort_custom(list, by_key);
    }
    EXPECT_THAT(list.keys(), ElementsAre(3, 1, 2));
    EXPECT_EQ(list->marker, list->head);
}

// A list as an array and the index of the cursor, the size for the sentinel.
struct Model {
    Items items;
    size_t cursor = 0;

    void insert(Item* item, bool forward) {
        const size_t at = !forward ? cursor : cursor == items.size() ? 0 : cursor + 1;
        items.insert(items.begin() + static_cast<ptrdiff_t>(at), item);
        cursor = at;
    }
    Item* remove(size_t index, bool forward) {
        Item* const item = items[index];
        items.erase(items.begin() + static_cast<ptrdiff_t>(index));
        if (cursor == index && !forward) {
            cursor = index ? index - 1 : items.size();
        } else if (cursor > index) {
            --cursor;
        }
        return item;
    }
    void step(bool forward) {
        const size_t places = items.size() + 1;
        cursor = (cursor + (forward ? 1 : places - 1)) % places;
    }
};

TEST(RandomOperations, LeaveListAndModelAlike) {
    std::mt19937 random(20);
    const auto below = [&](size_t limit) { return static_cast<size_t>(random()) % limit; };
    List lists[2];
    Model models[2];
    for (int round = 0; round < 20000; ++round) {
        const size_t which = below(2);
        List& list = lists[which];
        Model& model = models[which];
        const int direction = static_cast<int>(below(2));
        const size_t operation = below(model.items.size() > 12 ? 9 : 11);
        SCOPED_TRACE(testing::Message()
                     << "round " << round << ", operation " << operation << ' ' << direction);
        const size_t victim = model.items.empty() ? 0 : below(model.items.size());
        if (operation == 0) {
            trelm_dlist_start(list);
            model.cursor = model.items.size();
        } else if (operation <= 2) {
            _trelm_dlist_mark_move(list, direction);
            model.step(direction);
        } else if (operation == 3 && !model.items.empty()) {
            EXPECT_EQ(_trelm_dlist_remove(list, list.node(victim), direction),
                      model.remove(victim, direction));
        } else if (operation == 4 && model.cursor < model.items.size()) {
            trelm_dlist_delete(list, direction);
            model.remove(model.cursor, direction);
        } else if (operation == 5 && !model.items.empty()) {
            EXPECT_EQ(trelm_dlist_pop(list), model.remove(model.items.size() - 1, false));
        } else if (operation == 6 && !model.items.empty()) {
            EXPECT_EQ(trelm_dlist_shift(list), model.remove(0, true));
        } else if (operation == 7 && !model.items.empty()) {
            trelm_dlist_move(list, lists[1 - which], list.node(victim), direction);
            models[1 - which].insert(model.remove(victim, direction), direction);
        } else if (operation == 8) {
            Item* const item = list.item(static_cast<int>(below(50)));
            (direction ? trelm_dlist_push : trelm_dlist_unshift)(list, item);
            model.cursor = model.items.size();
            model.insert(item, !direction);
        } else if (operation > 8) {
            Item* const item = list.item(static_cast<int>(below(50)));
            trelm_dlist_insert(list, item, direction);
            model.insert(item, direction);
        }
        for (size_t i = 0; i < 2; ++i) {
            ASSERT_TRUE(lists[i].elements() == models[i].items);
            const Items& items = models[i].items;
            ASSERT_EQ(trelm_dlist_mark(lists[i]),
                      models[i].cursor < items.size() ? items[models[i].cursor] : nullptr);
        }
    }
}

}  // namespace
