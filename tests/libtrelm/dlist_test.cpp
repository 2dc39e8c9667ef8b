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
    Keys keys() const {
        seen.clear();
        trelm_dlist_transform(list, see);
        return seen;
    }

    trelm_dlist* list = trelm_dlist_new_with_delete(sizeof(int), see);
};

TEST(EmptyOrNoList, IsLeftAloneByEveryOperation) {
    int item = 3;
    trelm_dl_node node{nullptr, nullptr, &item};
    Keys none;
    const List empty(none);
    for (trelm_dlist* list : {empty.list, static_cast<trelm_dlist*>(nullptr)}) {
        void* const refused = list ? nullptr : &item;  // an empty list takes elements
        for (void* nothing :
             {trelm_dlist_mark(list), _trelm_dlist_mark_move(list, 1), trelm_dlist_pop(list),
              trelm_dlist_shift(list), trelm_dlist_find_custom(list, &item, is_same),
              _trelm_dlist_remove(list, list ? nullptr : &node, 1), trelm_dlist_insert(list, refused, 1),
              trelm_dlist_push(list, refused), trelm_dlist_unshift(list, refused),
              trelm_dlist_insert_sorted(list, refused, is_same),
              trelm_dlist_unshift_sorted(list, refused, is_same)})
            EXPECT_EQ(nothing, nullptr);
        EXPECT_EQ(_trelm_dlist_insert_dlnode(list, list ? nullptr : &node, 1), nullptr);
        EXPECT_EQ(_trelm_dlist_merge(list, empty, 1, by_key) + _trelm_dlist_merge(empty, list, 1, by_key), 0);
        trelm_dlist_delete(list, 1);
        trelm_dlist_sort_custom(list, by_key);
        trelm_dlist_filter_sort(list, is_odd, by_key);
        trelm_dlist_transform(list, see);
        EXPECT_EQ(empty.list->marker, nullptr);
    }
    trelm_dlist_start(nullptr);
    trelm_dlist_end(nullptr);
    trelm_dlist_move(nullptr, empty, &node, 1);
    trelm_dlist_move(empty, nullptr, &node, 1);
    _trelm_dlist_swap(nullptr, nullptr, &node);
    trelm_dlist_destroy(nullptr);
    EXPECT_THAT(empty.keys(), ElementsAre());
    EXPECT_EQ(node.data, &item);
}

TEST(List, ReleasesWhatIsDeletedFilteredOutOrLeftAtItsEnd) {
    Keys keys{6, 3, 2, 1, 4};
    seen.clear();
    {
        const List list(keys);
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
    list = trelm_dlist_new_with_delete(sizeof(int), [](void*) { EXPECT_EQ(list->count, 1U); });
    int item = 1;
    trelm_dlist_push(list, &item);
    trelm_dlist_delete(list, 1);
    EXPECT_EQ(list->count, 0U);
    trelm_dlist_destroy(list);
}

TEST(List, IsNotSortedWithoutMemory) {
    Keys keys{3, 1, 2};
    const List list(keys);
    {
        const trelm::test::FailingAllocation fail;
        trelm_dlist_sort_custom(list, by_key);
    }
    EXPECT_THAT(list.keys(), ElementsAre(3, 1, 2));
    EXPECT_EQ(list.list->marker, list.list->head);
}

}  // namespace
