// dlist_test.cpp - the list container: refused arguments, released elements, and behaviour without memory. A
// fuzz target tests random sequences.
#include "trelm_dlist.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/failing_allocation.h"

namespace {

using ::testing::ElementsAre;
using Keys = std::vector<int>;

Keys seen;
int key(void* element) { return *static_cast<int*>(element); }
void see(void* element) { seen.push_back(key(element)); }
int by_key(void* a, void* b) { return key(a) - key(b); }
int is_same(void* target, void* element) { return key(target) == key(element); }
int is_odd(void* element) { return key(element) % 2; }

// A list of keys that outlive it. Records which elements it releases.
struct List {
    explicit List(Keys& keys) {
        for (int& key : keys) trelm_dlist_push(list, &key);
    }
    ~List() { trelm_dlist_destroy(list); }
    List(List&&) = delete;
    operator trelm_dlist*() const { return list; }
    trelm_dlist* operator->() const { return list; }
    Keys keys() const {
        seen.clear();
        trelm_dlist_transform(list, see);
        return seen;
    }

    trelm_dlist* list = trelm_dlist_new_with_delete(sizeof(int), see);
};

TEST(EmptyList, IsSafeForEveryOperation) {
    Keys none;
    const List list(none);
    int item = 3;
    for (void* nothing :
         {trelm_dlist_mark(list), _trelm_dlist_mark_move(list, 1), trelm_dlist_pop(list),
          _trelm_dlist_remove(list, nullptr, 1), trelm_dlist_find_custom(list, &item, is_same),
          trelm_dlist_insert(list, nullptr, 1), trelm_dlist_push(list, nullptr),
          trelm_dlist_unshift(list, nullptr), trelm_dlist_insert_sorted(list, nullptr, is_same)})
        EXPECT_EQ(nothing, nullptr);
    EXPECT_EQ(_trelm_dlist_insert_dlnode(list, nullptr, 1), nullptr);
    EXPECT_EQ(_trelm_dlist_merge(list, list, 1, by_key), 0);
    trelm_dlist_delete(list, 1);
    trelm_dlist_filter_sort(list, is_odd, by_key);
    EXPECT_EQ(list->marker, nullptr);
    EXPECT_THAT(list.keys(), ElementsAre());
    trelm_dlist_destroy(nullptr);
}

TEST(NoList, IsLeftAloneByEveryOperation) {
    int item = 3;
    trelm_dl_node node{nullptr, nullptr, &item};
    Keys none;
    const List list(none);
    for (void* nothing :
         {trelm_dlist_mark(nullptr), _trelm_dlist_mark_move(nullptr, 1),
          trelm_dlist_insert(nullptr, &item, 1), trelm_dlist_push(nullptr, &item),
          trelm_dlist_unshift(nullptr, &item), trelm_dlist_insert_sorted(nullptr, &item, is_same),
          trelm_dlist_unshift_sorted(nullptr, &item, is_same), _trelm_dlist_remove(nullptr, &node, 1),
          trelm_dlist_pop(nullptr), trelm_dlist_shift(nullptr),
          trelm_dlist_find_custom(nullptr, &item, is_same)})
        EXPECT_EQ(nothing, nullptr);
    EXPECT_EQ(_trelm_dlist_insert_dlnode(nullptr, &node, 1), nullptr);
    EXPECT_EQ(_trelm_dlist_merge(nullptr, list, 1, by_key), 0);
    EXPECT_EQ(_trelm_dlist_merge(list, nullptr, 1, by_key), 0);
    trelm_dlist_start(nullptr);
    trelm_dlist_end(nullptr);
    trelm_dlist_delete(nullptr, 1);
    trelm_dlist_move(nullptr, list, &node, 1);
    trelm_dlist_move(list, nullptr, &node, 1);
    trelm_dlist_transform(nullptr, see);
    trelm_dlist_sort_custom(nullptr, by_key);
    trelm_dlist_filter_sort(nullptr, is_odd, by_key);
    _trelm_dlist_swap(nullptr, nullptr, &node);
    EXPECT_THAT(list.keys(), ElementsAre());
    EXPECT_EQ(node.data, &item);
}

TEST(List, ReleasesWhatIsDeletedFilteredOutOrLeftAtItsEnd) {
    Keys keys{4, 3, 2, 1, 6};
    {
        const List list(keys);
        _trelm_dlist_swap(list, list->head->next, list->head->prev);
        EXPECT_EQ(trelm_dlist_find_custom(list, &keys[1], is_same), &keys[1]);
        EXPECT_EQ(list->marker, list->head->prev) << "neither moves the cursor";
        EXPECT_THAT(list.keys(), ElementsAre(6, 3, 2, 1, 4));
        seen.clear();
        trelm_dlist_delete(list, 1);
        trelm_dlist_filter_sort(list, is_odd, by_key);
        EXPECT_THAT(seen, ElementsAre(4, 6, 2));
        EXPECT_THAT(list.keys(), ElementsAre(1, 3));
        seen.clear();
    }
    EXPECT_THAT(seen, ElementsAre(1, 3));
}

TEST(List, CountsAnElementUntilItIsReleased) {
    static trelm_dlist* list;
    static uint64_t count;
    list = trelm_dlist_new_with_delete(sizeof(int), [](void*) { count = list->count; });
    int item = 1;
    trelm_dlist_push(list, &item);
    trelm_dlist_delete(list, 1);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(list->count, 0U);
    trelm_dlist_destroy(list);
}

TEST(ExhaustedMemory, MakesNoListAndSortsNothing) {
    Keys keys{3, 1, 2};
    const List list(keys);
    const auto without_memory = [](auto work) {
        const trelm::test::FailingAllocation fail;
        return work();
    };
    EXPECT_EQ(without_memory([] { return trelm_dlist_new(8); }), nullptr);
    without_memory([&] { trelm_dlist_sort_custom(list, by_key); });
    EXPECT_THAT(list.keys(), ElementsAre(3, 1, 2));
    EXPECT_EQ(list->marker, list->head);
}

}  // namespace
