// dlist_test.cpp - the list container: what each operation does to ring, count and cursor.
#include "trelm_dlist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <deque>
#include <random>
#include <utility>
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

std::vector<int> keys_of(const Items& items) {
    std::vector<int> keys;
    for (const Item* item : items) keys.push_back(item->key);
    return keys;
}

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
    std::vector<int> keys() const { return keys_of(elements()); }
    // The key under the cursor, 0 for the sentinel.
    int cursor() const {
        const void* element = trelm_dlist_mark(list_);
        return element ? static_cast<const Item*>(element)->key : 0;
    }
    void set_cursor(size_t index) const { list_->marker = node(index); }

    // What destroying it releases.
    Items destroy() {
        released.clear();
        trelm_dlist_destroy(std::exchange(list_, nullptr));
        return std::exchange(released, {});
    }

  private:
    trelm_dlist* list_;
    std::deque<Item> items_;
};

TEST(EmptyList, HasNoCursorAndEveryOperationOnItIsSafe) {
    trelm_dlist* plain = trelm_dlist_new(24);
    EXPECT_EQ(plain->data_size, 24U);
    trelm_dlist_push(plain, malloc(24));  // a leak where the default release is not free()
    trelm_dlist_destroy(plain);
    trelm_dlist_destroy(nullptr);

    List list;
    Item item{3};
    trelm_dl_node node{nullptr, nullptr, &item};
    for (const bool started : {false, true}) {
        if (started) trelm_dlist_start(list);
        const trelm_dl_node* const cursor = list->marker;
        EXPECT_EQ(cursor, started ? list->head : nullptr);
        for (void* none :
             {trelm_dlist_mark(list), _trelm_dlist_mark_move(list, 1), _trelm_dlist_mark_move(list, 0),
              trelm_dlist_pop(list), trelm_dlist_shift(list), _trelm_dlist_remove(list, nullptr, 1),
              trelm_dlist_find_custom(list, &item, same_key), trelm_dlist_insert(nullptr, &item, 1),
              trelm_dlist_insert(list, nullptr, 1), trelm_dlist_push(list, nullptr),
              trelm_dlist_unshift(list, nullptr)})
            EXPECT_EQ(none, nullptr);
        EXPECT_EQ(_trelm_dlist_insert_dlnode(nullptr, &node, 1), nullptr);
        EXPECT_EQ(_trelm_dlist_insert_dlnode(list, nullptr, 1), nullptr);
        trelm_dlist_transform(list, [](void*) { ADD_FAILURE(); });
        trelm_dlist_delete(list, 1);
        trelm_dlist_sort_custom(list, by_key);
        trelm_dlist_filter_sort(list, is_odd, by_key);
        EXPECT_EQ(list->marker, cursor);
        EXPECT_THAT(list.keys(), IsEmpty());
    }
    EXPECT_THAT(list.destroy(), IsEmpty());
}

TEST(Cursor, IsWhereElementsAreInsertedAndGoesAlong) {
    List list;
    for (int key : {1, 2, 3}) EXPECT_EQ(key_of(trelm_dlist_insert(list, list.item(key), 1)), key);
    EXPECT_THAT(list.keys(), ElementsAre(1, 2, 3));
    trelm_dlist_end(list);
    trelm_dlist_insert(list, list.item(4), 1);
    EXPECT_THAT(list.keys(), ElementsAre(4, 1, 2, 3));
    trelm_dlist_insert(list, list.item(5), 0);
    EXPECT_THAT(list.keys(), ElementsAre(5, 4, 1, 2, 3));
    for (int expected : {4, 1, 2, 3, 0, 5}) {
        const void* const element = _trelm_dlist_mark_move(list, 1);
        EXPECT_EQ(element, trelm_dlist_mark(list));
        EXPECT_EQ(list.cursor(), expected);
    }
    trelm_dlist_delete(list, 1);
    EXPECT_EQ(list.cursor(), 4);
    trelm_dlist_delete(list, 0);
    EXPECT_EQ(list.cursor(), 0);
    EXPECT_THAT(keys_of(released), ElementsAre(5, 4));
    EXPECT_THAT(keys_of(list.destroy()), ElementsAre(1, 2, 3));
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
    EXPECT_THAT(list.keys(), ElementsAre(1, 1, 2, 3));
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
        {{2, 1, 3}, 8, {2, 1, 3}, false},
    };
    for (const auto& c : cases) {
        List source(c.source);
        List dest{7, 8};
        dest.set_cursor(0);
        const int steps = _trelm_dlist_merge(source, dest, c.run, by_key);
        EXPECT_TRUE(c.merges ? steps >= 2 : steps == 1) << steps;
        EXPECT_EQ(dest.cursor(), c.expected.back());
        std::vector<int> expected = c.expected;
        expected.insert(expected.begin(), 7);
        expected.push_back(8);
        EXPECT_EQ(dest.keys(), expected);
        EXPECT_THAT(source.keys(), IsEmpty());
        EXPECT_EQ(_trelm_dlist_merge(source, dest, c.run, by_key), 0);
    }
}

TEST(Sort, IsStableAtEverySize) {
    std::mt19937 random(7);
    for (int size : {0, 1, 2, 3, 7, 8, 9, 16, 17, 33, 255, 256, 257, 1024, 1025, 3073, 5000}) {
        for (int keys : {1, 3, 1 << 20}) {
            SCOPED_TRACE(testing::Message() << size << " elements of " << keys << " keys");
            List list;
            for (int i = 0; i < size; ++i)
                trelm_dlist_push(list, list.item(static_cast<int>(random()) % keys));
            if (size > 1) list.set_cursor(static_cast<size_t>(size) / 2);
            Items expected = list.elements();
            std::ranges::stable_sort(expected, {}, &Item::key);
            trelm_dlist_sort_custom(list, by_key);
            EXPECT_TRUE(list.elements() == expected);
            EXPECT_EQ(trelm_dlist_mark(list), size ? expected.back() : nullptr);
            EXPECT_THAT(released, IsEmpty());
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
    trelm_dlist_push(all_go, all_go.item(1));
    EXPECT_THAT(all_go.keys(), ElementsAre(1));
}

TEST(ExhaustedMemory, MakesNoListAndNoElementAndSortsNothing) {
    List list{3, 1, 2};
    Item* const item = list.item(9);
    const auto without_memory = [](auto work) {
        const trelm::test::FailingAllocation fail;
        return work();
    };
    EXPECT_EQ(without_memory([] { return trelm_dlist_new(8); }), nullptr);
    EXPECT_EQ(without_memory([&] { return trelm_dlist_push(list, item); }), nullptr);
    EXPECT_EQ(without_memory([&] { return trelm_dlist_unshift(list, item); }), nullptr);
    without_memory([&] { trelm_dlist_sort_custom(list, by_key); });
    EXPECT_THAT(list.keys(), ElementsAre(3, 1, 2));
    EXPECT_EQ(list->marker, list->head);
}

// A list as an array and the index of the cursor, the size for the sentinel.
struct Model {
    Items items;
    size_t cursor = 0;

    void insert_at(size_t at, Item* item) {
        items.insert(items.begin() + static_cast<ptrdiff_t>(at), item);
        cursor = at;
    }
    void insert(Item* item, bool forward) {
        insert_at(!forward ? cursor : cursor == items.size() ? 0 : cursor + 1, item);
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
};

// Lists fill and run empty many times on the way, by every operation that does either.
TEST(RandomOperations, LeaveListAndModelAlike) {
    std::mt19937 random(20);
    const auto below = [&](size_t limit) { return static_cast<size_t>(random()) % limit; };
    List lists[2];
    Model models[2];
    for (int round = 0; round < 20000; ++round) {
        const size_t which = below(2);
        List& list = lists[which];
        Model& model = models[which];
        const size_t size = model.items.size();
        const int direction = static_cast<int>(below(2));
        const size_t operation = below(size == 0 ? 6 : size > 12 ? 10 : 11);
        SCOPED_TRACE(testing::Message()
                     << "round " << round << ", operation " << operation << ' ' << direction);
        const size_t victim = size == 0 ? 0 : below(size);
        Item* const item = list.item(static_cast<int>(below(50)));
        if (operation == 0) {
            trelm_dlist_start(list);
            model.cursor = size;
        } else if (operation <= 2) {
            _trelm_dlist_mark_move(list, direction);
            model.cursor = (model.cursor + (direction ? 1 : size)) % (size + 1);
        } else if (operation == 3) {
            EXPECT_EQ((direction ? trelm_dlist_push : trelm_dlist_unshift)(list, item), item);
            model.insert_at(direction ? size : 0, item);
        } else if (operation == 4) {
            EXPECT_EQ(trelm_dlist_insert(list, item, direction), item);
            model.insert(item, direction);
        } else if (operation == 5) {
            auto* const insert = direction ? trelm_dlist_insert_sorted : trelm_dlist_unshift_sorted;
            EXPECT_EQ(insert(list, item, goes_before), item);
            const auto place = std::ranges::find_if(
                model.items, [item](const Item* other) { return item->key < other->key; });
            model.insert_at(static_cast<size_t>(place - model.items.begin()), item);
        } else if (operation == 6) {
            EXPECT_EQ(_trelm_dlist_remove(list, list.node(victim), direction),
                      model.remove(victim, direction));
        } else if (operation == 7 && model.cursor < size) {
            trelm_dlist_delete(list, direction);
            EXPECT_EQ(released.back(), model.remove(model.cursor, direction));
        } else if (operation == 8) {
            EXPECT_EQ(trelm_dlist_pop(list), model.remove(size - 1, false));
        } else if (operation == 9) {
            EXPECT_EQ(trelm_dlist_shift(list), model.remove(0, true));
        } else if (operation == 10) {
            const trelm_dl_node* const node = list.node(victim);
            trelm_dlist_move(list, lists[1 - which], list->head, direction);  // never the sentinel
            trelm_dlist_move(list, lists[1 - which], list.node(victim), direction);
            EXPECT_EQ(lists[1 - which]->marker, node);  // the node itself
            models[1 - which].insert(model.remove(victim, direction), direction);
            EXPECT_EQ(list->headnode.next == nullptr, size == 1);  // the last one takes the ring along
        }
        for (size_t i = 0; i < 2; ++i) {
            const Items& items = models[i].items;
            ASSERT_TRUE(lists[i].elements() == items);
            ASSERT_EQ(trelm_dlist_mark(lists[i]),
                      models[i].cursor < items.size() ? items[models[i].cursor] : nullptr);
        }
    }
}

}  // namespace
